// pref - a user's preferences.
#include <fmt/format.h>
#include <functional>

#include "tools/cli/input.h"
#include "tools/cli/text.h"
#include "tools/verbs/each_mailbox.h"
#include "tools/verbs/verbs.h"
#include "tools/work/preferences.h"

namespace Tessaly::tool {

namespace {

using std::string;

using Keys = std::vector<const pref_property*>;

struct Arguments {
    Choice choice;
    std::vector<string> words;
    bool dry_run = false;
};

Keys keys_of(const std::vector<string>& names) {
    Keys keys;
    for (const string& name : names) keys.push_back(&preference_named(name));
    return keys;
}

Keys all_keys() {
    Keys keys;
    for (const pref_property& property : all_preferences()) keys.push_back(&property);
    return keys;
}

std::vector<string> all_names() {
    std::vector<string> names;
    for (const pref_property& property : all_preferences()) names.emplace_back(property.name);
    return names;
}

Json object_of(const Preferences& preferences, const Keys& keys) {
    Json object;
    for (const pref_property* key : keys) object[key->name] = preferences.value(*key);
    return object;
}

// Reads the preferences with the keys in workers.
MailboxJob reading(const Mailboxes& mailboxes, const Keys& keys) {
    MailboxJob job;
    job.progress = mailboxes.all ? "looking at mailboxes" : "";
    job.work = [&keys](const TSMailUserId& id, Report& report) {
        report.object(object_of(Preferences::of(id), keys));
        return kExitOk;
    };
    return job;
}

int run_show(Session& session, const Arguments& arguments) {
    session.out.end_with_reader();
    const Mailboxes mailboxes = mailboxes_of(arguments.choice);
    const Keys keys = all_keys();
    const Preferences defaults;
    Table table(with_mailbox<Table::Column>(
        mailboxes, {"mailbox"}, {{"preference"}, {"value"}, {"default, where it differs"}}));
    bool any = mailboxes.all;
    MailboxJob job = reading(mailboxes, keys);
    job.show = [&](const TSMailUserId& id, const Json& object) {
        any = true;
        for (const pref_property* key : keys) {
            const string value = preference_text(object.at(key->name));
            const string usual = defaults.text(*key);
            table.row(with_mailbox(mailboxes, id.address(true),
                                   {key->name, value, value == usual ? "" : usual}));
        }
    };
    return run_on_each(session, mailboxes, job, [&](int) {
        if (any) table.print(session.out);
    });
}

int run_get(Session& session, const Arguments& arguments) {
    session.out.end_with_reader();
    const Keys keys = keys_of(arguments.words);
    const Mailboxes mailboxes = mailboxes_of(arguments.choice);
    MailboxJob job = reading(mailboxes, keys);
    job.show = [&](const TSMailUserId& id, const Json& object) {
        for (const pref_property* key : keys) {
            const string value = printable(preference_text(object.at(key->name)));
            session.out.line(lead(mailboxes, id) +
                             (keys.size() == 1 ? value : fmt::format("{}={}", key->name, value)));
        }
    };
    return run_on_each(session, mailboxes, job);
}

int report_changes(const Preferences& before, const Preferences& after, Report& report) {
    after.check();
    for (const pref_property& property : all_preferences()) {
        const string text = after.text(property);
        if (text != before.text(property)) report.object({{"key", property.name}, {"to", text}});
    }
    return kExitOk;
}

void show_change(Session& session, const string& mailbox, const Json& change) {
    if (session.json) return;
    session.out.line(fmt::format("{}would set {}={}", mailbox, change.at("key").get<string>(),
                                 printable(change.at("to").get<string>())));
}

// Changes preferences in workers, under their lock. With --json a dry run shows nothing either.
int run_changing(Session& session, const Arguments& arguments,
                 const std::function<Preferences(const TSMailUserId&)>& changed) {
    const Mailboxes mailboxes = mailboxes_of(arguments.choice);
    MailboxJob job;
    job.progress = mailboxes.all ? "changing preferences" : "";
    job.work = [&](const TSMailUserId& id, Report& report) {
        if (arguments.dry_run) return report_changes(Preferences::of(id), changed(id), report);
        const PreferencesLock lock(id);
        changed(id).store(id);
        return int{kExitOk};
    };
    job.show = [&](const TSMailUserId& id, const Json& change) {
        show_change(session, lead(mailboxes, id), change);
    };
    return run_on(session, mailboxes, job);
}

// "key=value"
void set_by_word(Preferences& preferences, const string& word) {
    const std::size_t equals = word.find('=');
    if (equals == string::npos) {
        throw Failure(kExitUsage, fmt::format("\"{}\" is not KEY=VALUE", printable(word)));
    }
    preferences.set(preference_named(word.substr(0, equals)),
                    std::string_view(word).substr(equals + 1));
}

// A JSON object from standard input.
Json object_of_input() {
    Json object = Json::parse(read_standard_input(), nullptr, false);
    if (!object.is_object()) throw Failure(kExitData, "standard input is not a JSON object");
    return object;
}

int run_set(Session& session, const Arguments& arguments) {
    if (arguments.words.empty() && !session.json) {
        throw Failure(kExitUsage, "KEY=VALUE is missing, or --json with an object to read");
    }
    const Json given = arguments.words.empty() ? object_of_input() : Json::object();
    return run_changing(session, arguments, [&](const TSMailUserId& id) {
        Preferences preferences = Preferences::of(id);
        for (const string& word : arguments.words) set_by_word(preferences, word);
        for (const auto& [key, value] : given.items()) {
            preferences.set(preference_named(key), value);
        }
        return preferences;
    });
}

int run_reset(Session& session, const Arguments& arguments) {
    const Keys keys = arguments.words.empty() ? all_keys() : keys_of(arguments.words);
    return run_changing(session, arguments, [&](const TSMailUserId& id) {
        Preferences preferences = arguments.words.empty() ? Preferences() : Preferences::of(id);
        for (const pref_property* key : keys) preferences.reset(*key);
        return preferences;
    });
}

void declare_show(Verb& verb, Arguments& arguments) { verb.choice(arguments.choice); }

void declare_get(Verb& verb, Arguments& arguments) {
    verb.choice(arguments.choice)
        .texts("KEY", arguments.words, "Preferences to show")
        .one_of(all_names())
        .required();
}

void declare_set(Verb& verb, Arguments& arguments) {
    verb.choice(arguments.choice)
        .texts("SETTING", arguments.words,
               "What to set, as KEY=VALUE; none with --json: an object is read from standard input")
        .flag("--dry-run", arguments.dry_run, "Only say what would change");
}

void declare_reset(Verb& verb, Arguments& arguments) {
    verb.choice(arguments.choice)
        .texts("KEY", arguments.words, "Preferences to reset (default: all)")
        .one_of(all_names())
        .flag("--dry-run", arguments.dry_run, "Only say what would change");
}

}  // namespace

void add_pref_verbs(const VerbGroup& top) {
    const VerbGroup pref = top.group("pref", "About a user's preferences");
    pref.reader("show", "Show all preferences", declare_show, run_show);
    pref.reader("get", "Show some preferences", declare_get, run_get);
    pref.verb("set", "Change preferences", declare_set, run_set);
    pref.verb("reset", "Set preferences back to their defaults", declare_reset, run_reset);
}

}  // namespace Tessaly::tool
