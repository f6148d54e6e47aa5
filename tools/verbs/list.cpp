// list - address lists.
#include <fmt/format.h>
#include <sys/stat.h>
#include <tessaly/maillist.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <nlohmann/json.hpp>

#include "tools/cli/address.h"
#include "tools/cli/input.h"
#include "tools/cli/progress.h"
#include "tools/cli/text.h"
#include "tools/spool/identity.h"
#include "tools/verbs/verbs.h"
#include "tools/work/address_list.h"
#include "tools/work/folder.h"

namespace Tessaly::tool {

namespace {

using std::string;
using Added = AddressList::Added;

struct Arguments {
    string address;
    string list;
    string scope = "user";
    std::vector<string> words;
    string line;
    string entry;
    string file;
    bool sorted = false;
};

constexpr Word kScopes[] = {
    {MAIL_LIST_USER, "user"}, {MAIL_LIST_HOME, "home"}, {MAIL_LIST_SYSTEM, "system"}};

// The list that the arguments name, for as long as this lives worked on as its owner.
struct Opened {
    std::unique_ptr<AsOwner> owner;
    AddressList list;
};

Opened open_list(const Session& session, const Arguments& arguments) {
    const auto scope = static_cast<unsigned>(word_of(kScopes, "scope", arguments.scope).number);
    check_list_name(arguments.list);
    if (scope == MAIL_LIST_HOME) check_home_name(arguments.address);
    Opened opened{nullptr, AddressList(arguments.address, arguments.list, scope)};
    if (scope == MAIL_LIST_USER) {
        const TSMailUserId id = mailbox_of(arguments.address);
        if (opened.list.path() == id.fname(MUF_PREF_FILE)) {
            throw Failure(kExitData, "\"pref\" is no list: the user's preferences have that name");
        }
        demand_mailbox(id);
        opened.owner = std::make_unique<AsOwner>(session, id);
    }
    return opened;
}

void check_entry(const string& entry) {
    if (const char* reason = against_entry(entry)) {
        throw Failure(kExitData,
                      fmt::format("entry \"{}\" is refused: {}", printable(entry), reason));
    }
}

Failure full(const AddressList& list) {
    return {kExitCannotCreate,
            fmt::format("{} has {} lines, more are not added", printable(list.path()), kListLines)};
}

// Entries as they stand in the list: escaped for eyes, exact for programs.
void show_entry(Session& session, std::size_t line, const string& entry) {
    if (session.json) {
        Json object;
        if (line > 0) object["line"] = line;
        object["entry"] = entry;
        session.out.object(object);
    } else if (line > 0) {
        session.out.line(fmt::format("{:>5}  {}", line, printable(entry)));
    } else {
        session.out.line(::isatty(STDOUT_FILENO) == 1 ? printable(entry) : entry);
    }
}

int run_show(Session& session, const Arguments& arguments) {
    const Opened opened = open_list(session, arguments);
    if (arguments.sorted) {
        for (const string& entry : opened.list.sorted()) show_entry(session, 0, entry);
        return kExitOk;
    }
    std::size_t line = 0;
    for (const string& entry : opened.list.lines()) show_entry(session, ++line, entry);
    return kExitOk;
}

int run_export(Session& session, const Arguments& arguments) {
    const Opened opened = open_list(session, arguments);
    for (const string& entry : opened.list.lines()) {
        if (!entry.empty()) show_entry(session, 0, entry);
    }
    return kExitOk;
}

// One line about an entry, "added ann@site.test", or an object with the same as a member.
void say(Session& session, const string& entry, const char* field, bool value, const char* words) {
    if (session.json) {
        session.out.object(Json{{"entry", entry}, {field, value}});
    } else {
        session.out.line(fmt::format("{} {}", words, printable(entry)));
    }
}

int run_add(Session& session, const Arguments& arguments) {
    std::for_each(arguments.words.begin(), arguments.words.end(), check_entry);
    const Opened opened = open_list(session, arguments);
    for (const string& entry : arguments.words) {
        const Added added = opened.list.add(entry);
        if (added == Added::full) throw full(opened.list);
        say(session, entry, "added", added == Added::added,
            added == Added::added ? "added" : "was there:");
    }
    return kExitOk;
}

int run_remove(Session& session, const Arguments& arguments) {
    const Opened opened = open_list(session, arguments);
    for (const string& entry : arguments.words) {
        const bool removed = opened.list.remove(entry);
        say(session, entry, "removed", removed, removed ? "removed" : "was not there:");
    }
    return kExitOk;
}

// A question about words: exit code 0 if the answer is yes for all of them.
int ask(Session& session, const Arguments& arguments, const char* field,
        bool (AddressList::*question)(const string&) const) {
    const Opened opened = open_list(session, arguments);
    bool all = true;
    for (const string& word : arguments.words) {
        const bool yes = (opened.list.*question)(word);
        say(session, word, field, yes, yes ? "yes:" : "no:");
        all = all && yes;
    }
    return all ? kExitOk : kExitNo;
}

int run_find(Session& session, const Arguments& arguments) {
    return ask(session, arguments, "found", &AddressList::contains);
}

int run_match(Session& session, const Arguments& arguments) {
    return ask(session, arguments, "matched", &AddressList::matches);
}

int run_replace(Session& session, const Arguments& arguments) {
    check_entry(arguments.entry);
    const auto line = static_cast<unsigned>(whole_number("line", arguments.line, 1, UINT_MAX));
    open_list(session, arguments).list.replace(line, arguments.entry);
    return kExitOk;
}

struct Tally {
    std::uint64_t added = 0, present = 0, refused = 0;
};

void import_line(Session& session, const AddressList& list, const Input& input,
                 const LineReader& reader, Tally& tally) {
    const string& entry = reader.line();
    if (entry.empty() && !reader.cut()) return;
    if (const char* reason = reader.cut() ? "it is too long" : against_entry(entry)) {
        ++tally.refused;
        session.error(
            fmt::format("{}:{}: entry is refused: {}", input.name, reader.number(), reason));
        return;
    }
    const Added added = list.add(entry);
    if (added == Added::full) {
        const Failure failure = full(list);
        throw Failure(failure.code(), fmt::format("{}:{}: {} ({} were added)", input.name,
                                                  reader.number(), failure.what(), tally.added));
    }
    ++(added == Added::added ? tally.added : tally.present);
}

int run_import(Session& session, const Arguments& arguments) {
    const Input input = open_input(arguments.file);
    const Opened opened = open_list(session, arguments);
    LineReader reader(input);
    Progress progress(session, "importing " + input.name + ", bytes", size_of(input));
    Tally tally;
    while (reader.next()) {
        import_line(session, opened.list, input, reader, tally);
        progress.advance(reader.bytes());
    }
    if (session.json) {
        session.out.object(
            Json{{"added", tally.added}, {"present", tally.present}, {"refused", tally.refused}});
    } else {
        session.out.line(fmt::format("{} added, {} were there, {} refused", tally.added,
                                     tally.present, tally.refused));
    }
    return tally.refused == 0 ? kExitOk : kExitData;
}

Verb& declare_list(Verb& verb, Arguments& arguments) {
    return verb.address(arguments.address)
        .text("LIST", arguments.list, "The list's name, as whitelist")
        .required()
        .text("--scope", arguments.scope,
              "user (default): the user's own; home: the list in the directory ADDRESS below the "
              "homes; system: the system's, ADDRESS is not looked at")
        .one_of(kScopes);
}

void declare_show(Verb& verb, Arguments& arguments) {
    declare_list(verb, arguments)
        .flag("--sorted", arguments.sorted, "In the order of the alphabet, without line numbers");
}

void declare_plain(Verb& verb, Arguments& arguments) { declare_list(verb, arguments); }

void declare_entries(Verb& verb, Arguments& arguments) {
    declare_list(verb, arguments).texts("ENTRY", arguments.words, "Entries").required();
}

void declare_addresses(Verb& verb, Arguments& arguments) {
    declare_list(verb, arguments)
        .texts("WHO", arguments.words, "Addresses to match with the list's patterns")
        .required();
}

void declare_replace(Verb& verb, Arguments& arguments) {
    declare_list(verb, arguments)
        .text("LINE", arguments.line, "The line's number, as show has it")
        .required()
        .text("ENTRY", arguments.entry, "The new entry")
        .required();
}

void declare_import(Verb& verb, Arguments& arguments) {
    declare_list(verb, arguments)
        .text("FILE", arguments.file, "One entry a line (default: standard input)");
}

}  // namespace

void add_list_verbs(const VerbGroup& top) {
    const VerbGroup list = top.group("list", "About address lists");
    list.verb("show", "Show the lines with their numbers", declare_show, run_show);
    list.verb("add", "Add entries", declare_entries, run_add);
    list.verb("remove", "Remove entries", declare_entries, run_remove);
    list.verb("find", "Say whether entries are in the list (exit code 1: not all)", declare_entries,
              run_find);
    list.verb("match", "Say whether addresses match a pattern of the list (exit code 1: not all)",
              declare_addresses, run_match);
    list.verb("replace", "Replace a line", declare_replace, run_replace);
    list.verb("import", "Add the entries of a file", declare_import, run_import);
    list.verb("export", "Write out the entries, one a line", declare_plain, run_export);
}

}  // namespace Tessaly::tool
