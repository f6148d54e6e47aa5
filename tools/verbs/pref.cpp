// pref - a user's preferences.
#include <fmt/format.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "tools/cli/address.h"
#include "tools/cli/input.h"
#include "tools/cli/text.h"
#include "tools/spool/identity.h"
#include "tools/verbs/verbs.h"
#include "tools/work/folder.h"
#include "tools/work/preferences.h"

namespace Tessaly::tool {

namespace {

using std::string;

using Keys = std::vector<const pref_property*>;

struct Arguments {
    string address;
    std::vector<string> words;
};

TSMailUserId user_of(const Arguments& arguments) {
    TSMailUserId id = mailbox_of(arguments.address);
    demand_mailbox(id);
    return id;
}

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

int run_show(Session& session, const Arguments& arguments) {
    const TSMailUserId id = user_of(arguments);
    const AsOwner owner(session, id);
    const Preferences preferences = Preferences::of(id);
    if (session.json) {
        session.out.object(object_of(preferences, all_keys()));
        return kExitOk;
    }
    const Preferences defaults;
    Table table({{"preference"}, {"value"}, {"default, where it differs"}});
    for (const pref_property& property : all_preferences()) {
        const string value = preferences.text(property), usual = defaults.text(property);
        table.row({property.name, value, value == usual ? "" : usual});
    }
    table.print(session.out);
    return kExitOk;
}

int run_get(Session& session, const Arguments& arguments) {
    const Keys keys = keys_of(arguments.words);
    const TSMailUserId id = user_of(arguments);
    const AsOwner owner(session, id);
    const Preferences preferences = Preferences::of(id);
    if (session.json) {
        session.out.object(object_of(preferences, keys));
        return kExitOk;
    }
    for (const pref_property* key : keys) {
        const string value = printable(preferences.text(*key));
        session.out.line(keys.size() == 1 ? value : fmt::format("{}={}", key->name, value));
    }
    return kExitOk;
}

// "key=value"
void set_by_word(Preferences& preferences, const string& word) {
    const std::size_t equals = word.find('=');
    if (equals == string::npos) {
        throw Failure(kExitUsage, fmt::format("\"{}\" is no KEY=VALUE", printable(word)));
    }
    preferences.set(preference_named(word.substr(0, equals)),
                    std::string_view(word).substr(equals + 1));
}

// A JSON object from standard input.
void set_by_input(Preferences& preferences) {
    const Json object = Json::parse(read_standard_input(), nullptr, false);
    if (!object.is_object()) throw Failure(kExitData, "standard input is no JSON object");
    for (const auto& [key, value] : object.items()) {
        preferences.set(preference_named(key), value);
    }
}

int run_set(Session& session, const Arguments& arguments) {
    if (arguments.words.empty() && !session.json) {
        throw Failure(kExitUsage, "KEY=VALUE is missing, or --json with an object to read");
    }
    const TSMailUserId id = user_of(arguments);
    const AsOwner owner(session, id);
    const PreferencesLock lock(id);
    Preferences preferences = Preferences::of(id);
    for (const string& word : arguments.words) set_by_word(preferences, word);
    if (arguments.words.empty()) set_by_input(preferences);
    preferences.store(id);
    return kExitOk;
}

int run_reset(Session& session, const Arguments& arguments) {
    const Keys keys = arguments.words.empty() ? all_keys() : keys_of(arguments.words);
    const TSMailUserId id = user_of(arguments);
    const AsOwner owner(session, id);
    const PreferencesLock lock(id);
    Preferences preferences = arguments.words.empty() ? Preferences() : Preferences::of(id);
    for (const pref_property* key : keys) preferences.reset(*key);
    preferences.store(id);
    return kExitOk;
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
        .texts("KEY=VALUE", arguments.words,
               "What to set; none with --json: an object is read from standard input");
}

void declare_reset(Verb& verb, Arguments& arguments) {
    verb.address(arguments.address)
        .texts("KEY", arguments.words, "Preferences to reset (default: all)")
        .one_of(all_names());
}

}  // namespace

void add_pref_verbs(const VerbGroup& top) {
    const VerbGroup pref = top.group("pref", "About a user's preferences");
    pref.verb("show", "Show all preferences", declare_show, run_show);
    pref.verb("get", "Show some preferences", declare_get, run_get);
    pref.verb("set", "Change preferences", declare_set, run_set);
    pref.verb("reset", "Set preferences back to their defaults", declare_reset, run_reset);
}

}  // namespace Tessaly::tool
