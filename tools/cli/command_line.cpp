#include "tools/cli/command_line.h"

#include <fmt/format.h>
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <iterator>
#include <vector>

#include "tools/cli/grammar.h"
#include "tools/cli/manual.h"
#include "tools/cli/nearest.h"
#include "tools/cli/text.h"
#include "tools/cli/word_mark.h"
#include "tools/verbs/verbs.h"

namespace Tessaly::tool {

namespace {

using std::string;
using std::string_view;

std::vector<string> verbs_of(const CLI::App& app) {
    std::vector<string> names;
    for (const CLI::App* verb : app.get_subcommands(nullptr)) names.push_back(verb->get_name());
    return names;
}

const CLI::App* verb_named(const CLI::App& app, string_view name) {
    for (const CLI::App* verb : app.get_subcommands(nullptr)) {
        if (verb->get_name() == name) return verb;
    }
    return nullptr;
}

// What to say about a word where one of the verbs is expected.
string unknown_verb(string_view word, const std::vector<string>& verbs) {
    string text = fmt::format("there is no verb \"{}\"", printable(word));
    if (verbs.empty()) return text;
    if (const string near = nearest(word, verbs); !near.empty()) {
        return text + fmt::format("; did you mean \"{}\"?", near);
    }
    return text + fmt::format("; the verbs are {}", fmt::join(verbs, ", "));
}

// Where the words lead, and what is wrong on the way: a verb that is missing or unknown.
struct Walk {
    const CLI::App* reached;
    string problem;
};

Walk follow(const CLI::App& app, const std::vector<string>& words) {
    const CLI::App* at = &app;
    for (const string& word : words) {
        if (at->get_subcommands(nullptr).empty()) return {at, ""};
        if (word.starts_with('-')) continue;
        const CLI::App* next = verb_named(*at, word);
        if (next == nullptr) return {at, unknown_verb(word, verbs_of(*at))};
        at = next;
    }
    const std::vector<string> verbs = verbs_of(*at);
    if (verbs.empty()) return {at, ""};
    return {at, fmt::format("a verb is missing: {}", fmt::join(verbs, ", "))};
}

// "tsmail list add" for that verb.
string full_name(const CLI::App& verb) {
    return verb.get_parent() == nullptr ? verb.get_name()
                                        : full_name(*verb.get_parent()) + ' ' + verb.get_name();
}

void add_option_names(const CLI::App& app, std::vector<string>& names) {
    for (const CLI::Option* option : app.get_options()) {
        for (const string& name : option->get_lnames()) names.push_back("--" + name);
    }
}

// For the first word that looks like an unknown option: the option that the user may have meant.
string option_hint(const CLI::App& app, const CLI::App& reached, const std::vector<string>& words) {
    std::vector<string> names;
    add_option_names(app, names);
    add_option_names(reached, names);
    for (const string& word : words) {
        const string name = word.substr(0, word.find('='));
        if (!name.starts_with("--") || std::find(names.begin(), names.end(), name) != names.end()) {
            continue;
        }
        const string near = nearest(name, names);
        return near.empty() ? "" : fmt::format("; did you mean \"{}\"?", near);
    }
    return "";
}

[[noreturn]] void refuse(const CLI::App& app, const std::vector<string>& words,
                         const CLI::ParseError& error) {
    const auto [reached, problem] = follow(app, words);
    const string text =
        problem.empty() ? printable(error.what()) + option_hint(app, *reached, words) : problem;
    throw Failure(kExitUsage, fmt::format("{}\nSee \"{} --help\".", text, full_name(*reached)));
}

// An argument as JSON: its names (those of an option begin with '-'), what it is for, and whether
// it takes a value, must be there, may be given several times, is one of a few words.
Json object_of(const CLI::Option& option, const Choices& choices) {
    Json names = Json::array();
    for (const string& name : option.get_snames()) names.push_back('-' + name);
    for (const string& name : option.get_lnames()) names.push_back("--" + name);
    if (option.get_positional()) names.push_back(option.get_single_name());
    Json object = {{"names", names},
                   {"help", option.get_description()},
                   {"value", option.get_items_expected_max() > 0},
                   {"required", option.get_required()},
                   {"many", option.get_items_expected_max() > 1}};
    const auto words = choices.find(&option);
    if (words != choices.end()) object["words"] = words->second;
    return object;
}

// A verb with all that belongs to it, for the files made from the grammar: completion, the manual.
Json object_of(const CLI::App& app, const Choices& choices) {
    Json options = Json::array(), arguments = Json::array(), verbs = Json::array();
    for (const CLI::Option* option : app.get_options()) {
        (option->get_positional() ? arguments : options).push_back(object_of(*option, choices));
    }
    for (const CLI::App* verb : app.get_subcommands(nullptr)) {
        verbs.push_back(object_of(*verb, choices));
    }
    return {{"name", app.get_name()},
            {"help", app.get_description()},
            {"options", options},
            {"arguments", arguments},
            {"verbs", verbs}};
}

constexpr char kHelp[] = "help";

// The command's own options, and what its help says.
void declare_command(CLI::App& app, Session& session) {
    app.set_help_flag("-h,--help", "Say how it is used, and exit");
    app.set_version_flag("--version", "tsmail " TSMAIL_VERSION,
                         "Say which version it is, and exit");
    app.require_subcommand(1);
    app.fallthrough();
    app.footer(
        "\"tsmail VERB --help\" says more, tsmail(1) all. Exit codes: 0 done, 1 the answer is no,\n"
        "64 wrong usage, 65 bad address, name or content, 66 file to read missing, 67 no such\n"
        "mailbox, 69 not available, 70 internal error, 73 cannot create, 74 input/output error,\n"
        "75 temporary failure, try again.");
    app.add_flag("--json", session.json, "Show results as JSON, one object a line");
    app.add_flag("-q,--quiet", session.quiet, "Say nothing but errors");
    app.add_flag("-v,--verbose", session.verbosity, "Say more about what is done");
    app.add_option_function<string>(
        "--timeout",
        [&session](const string& given) {
            constexpr long long kDay = 86400;
            session.timeout = std::chrono::seconds(whole_number("--timeout", given, 1, kDay));
        },
        "Give up on a mailbox after so many seconds (default: 300)");
}

// The grammar, or the part of it that has only verbs with some names.
struct Grammar {
    Grammar(Session& session, const std::vector<string>& words, bool whole)
        : context{session, words, {}, whole ? nullptr : &words} {
        declare_command(app, session);
        for (const auto add : kVerbFamilies) add({&app, context});
        app.add_subcommand(kHelp, "Show the manual page of a verb")
            ->add_option("VERB", asked, "The verb, as list add (default: the command itself)")
            ->transform(unmarked);
    }

    GrammarContext context;
    CLI::App app{"Works on the mail store of a Tessaly mail appliance.", "tsmail"};
    std::vector<string> asked;  // the words after "help"
};

void show_help(const CLI::App& reached, Session& session, const Choices& choices) {
    if (session.json) {
        session.out.object(object_of(reached, choices));
    } else {
        session.out.line(reached.get_formatter()->make_help(&reached, full_name(reached),
                                                            CLI::AppFormatMode::Normal));
    }
}

// "tsmail help VERB": the verb's manual page on a terminal where man has it, else its help.
void show_manual(const Grammar& grammar, Session& session) {
    const CLI::App* at = &grammar.app;
    for (const string& word : grammar.asked) {
        const CLI::App* next = verb_named(*at, word);
        if (next == nullptr) throw Failure(kExitUsage, unknown_verb(word, verbs_of(*at)));
        at = next;
    }
    string page = full_name(*at);
    std::replace(page.begin(), page.end(), ' ', '-');
    if (!session.json) become_manual(page, session.callers_umask);
    show_help(*at, session, grammar.context.choices);
}

std::vector<string> as_parsed(const std::vector<string>& words) {
    std::vector<string> reversed;
    std::transform(words.rbegin(), words.rend(), std::back_inserter(reversed), marked);
    return reversed;
}

// Reads a correct command line that runs a verb. False for any other; throws if it asks for the
// version.
bool read_for_verb(const std::vector<string>& words, Session& session) {
    Grammar grammar(session, words, false);
    try {
        grammar.app.parse(as_parsed(words));
        return !grammar.app.got_subcommand(kHelp);
    } catch (const CLI::CallForVersion&) {
        throw;
    } catch (const CLI::ParseError&) {
        return false;
    }
}

// Answers a command line for which the whole grammar is needed: help, wrong usage.
void answer(const std::vector<string>& words, Session& session) {
    Grammar grammar(session, words, true);
    CLI::App& app = grammar.app;
    try {
        app.parse(as_parsed(words));
        show_manual(grammar, session);
    } catch (const CLI::CallForHelp&) {
        show_help(*follow(app, words).reached, session, grammar.context.choices);
    } catch (const CLI::CallForAllHelp&) {
        session.out.line(app.help("", CLI::AppFormatMode::All));
    } catch (const CLI::ParseError& error) {
        refuse(app, words, error);
    }
}

}  // namespace

bool read_command_line(int argc, const char* const* argv, Session& session) {
    const std::vector<string> words(argv + std::min(argc, 1), argv + argc);
    try {
        if (read_for_verb(words, session)) return true;
        answer(words, session);
    } catch (const CLI::CallForVersion& version) {
        session.out.line(version.what());
    }
    return false;
}

}  // namespace Tessaly::tool
