// pref - a user's preferences.
#include <fmt/format.h>
#include <functional>

#include "tools/cli/input.h"
#include "tools/cli/text.h"
#include "tools/spool/mailbox_job.h"
#include "tools/verbs/verbs.h"
#include "tools/work/preferences.h"

namespace Tessaly::tool {

namespace {

using std::string;

using Keys = std::vector<const pref_property*>;

struct Arguments {
    string address;
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

// Reads the user's preferences in a worker and shows those with the keys.
int run_reading(Session& session, const Arguments& arguments, const Keys& keys,
                const std::function<void(const Json&)>& show) {
    MailboxJob job;
    job.work = [&](const TSMailUserId& id, Report& report) {
        report.object(object_of(Preferences::of(id), keys));
        return kExitOk;
    };
    job.show = [&](const TSMailUserId&, const Json& object) {
        session.json ? session.out.object(object) : show(object);
    };
    return run_on(session, one_mailbox(arguments.address), job);
}

void show_table(Session& session, const Json& object) {
    const Preferences defaults;
    Table table({{"preference"}, {"value"}, {"default, where it differs"}});
    for (const pref_property& property : all_preferences()) {
        const string value = preference_text(object.at(property.name));
        const string usual = defaults.text(property);
        table.row({property.name, value, value == usual ? "" : usual});
    }
    table.print(session.out);
}

int run_show(Session& session, const Arguments& arguments) {
    return run_reading(session, arguments, all_keys(),
                       [&](const Json& object) { show_table(session, object); });
}

int run_get(Session& session, const Arguments& arguments) {
    const Keys keys = keys_of(arguments.words);
    return run_reading(session, arguments, keys, [&](const Json& object) {
        for (const pref_property* key : keys) {
            const string value = printable(preference_text(object.at(key->name)));
            session.out.line(keys.size() == 1 ? value : fmt::format("{}={}", key->name, value));
        }
    });
}

int report_changes(const Preferences& before, const Preferences& after, Report& report) {
    after.check();
    for (const pref_property& property : all_preferences()) {
        const string text = after.text(property);
        if (text != before.text(property)) report.object({{"key", property.name}, {"to", text}});
    }
    return kExitOk;
}

void show_change(Session& session, const Json& change) {
    if (session.json) return;
    session.out.line(fmt::format("would set {}={}", change.at("key").get<string>(),
                                 printable(change.at("to").get<string>())));
}

// Changes the user's preferences in a worker, under their lock.
int run_changing(Session& session, const Arguments& arguments,
                 const std::function<Preferences(const TSMailUserId&)>& changed) {
    MailboxJob job;
    job.work = [&](const TSMailUserId& id, Report& report) {
        if (arguments.dry_run) return report_changes(Preferences::of(id), changed(id), report);
        const PreferencesLock lock(id);
        changed(id).store(id);
        return int{kExitOk};
    };
    job.show = [&](const TSMailUserId&, const Json& change) { show_change(session, change); };
    return run_on(session, one_mailbox(arguments.address), job);
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

void declare_show(Verb& verb, Arguments& arguments) { verb.address(arguments.address); }

void declare_get(Verb& verb, Arguments& arguments) {
    verb.address(arguments.address)
        .texts("KEY", arguments.words, "Preferences to show")
        .one_of(all_names())
        .required();
}

void declare_set(Verb& verb, Arguments& arguments) {
    verb.address(arguments.address)
        .texts("SETTING", arguments.words,
               "What to set, as KEY=VALUE; none with --json: an object is read from standard input")
        .flag("--dry-run", arguments.dry_run, "Only say what would change");
}

void declare_reset(Verb& verb, Arguments& arguments) {
    verb.address(arguments.address)
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
