// list - address lists.
#include <fcntl.h>
#include <fmt/format.h>
#include <tessaly/maillist.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <functional>
#include <optional>

#include "tools/cli/address.h"
#include "tools/cli/input.h"
#include "tools/cli/nearest.h"
#include "tools/cli/text.h"
#include "tools/spool/mailbox_job.h"
#include "tools/verbs/list_place.h"
#include "tools/verbs/verbs.h"
#include "tools/work/address_list.h"

namespace Tessaly::tool {

namespace {

using std::string;
using Added = AddressList::Added;

using Arguments = ListArguments;

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

string entry_of(const Json& object) { return object.at("entry").get<string>(); }

string lead(const string& whose) { return whose.empty() ? "" : printable(whose) + ": "; }

// Shows entries as they stand in the list: escaped for people, exact for programs.
void show_plain(Session& session, const string& whose, const Json& object) {
    const string entry = entry_of(object);
    session.out.line(lead(whose) + (::isatty(STDOUT_FILENO) == 1 ? printable(entry) : entry));
}

void show_numbered(Session& session, const string& whose, const Json& object) {
    session.out.line(fmt::format("{}{:>5}  {}", lead(whose), object.at("line").get<std::size_t>(),
                                 printable(entry_of(object))));
}

int report_lines(const AddressList& list, Report& report) {
    std::size_t line = 0;
    for (const string& entry : list.lines()) report.object({{"line", ++line}, {"entry", entry}});
    return kExitOk;
}

int report_entries(const std::vector<string>& entries, Report& report) {
    for (const string& entry : entries) {
        if (!entry.empty()) report.object({{"entry", entry}});
    }
    return kExitOk;
}

int run_show(Session& session, const Arguments& arguments) {
    session.out.end_with_reader();
    const auto show = arguments.sorted ? show_plain : show_numbered;
    const auto work = [&](const AddressList& list, Report& report) {
        return arguments.sorted ? report_entries(list.sorted(), report)
                                : report_lines(list, report);
    };
    return run_on_list(session, arguments, work, [&](const string& whose, const Json& object) {
        show(session, whose, object);
    });
}

int run_export(Session& session, const Arguments& arguments) {
    const auto work = [](const AddressList& list, Report& report) {
        return report_entries(list.lines(), report);
    };
    return run_on_list(session, arguments, work, [&](const string& whose, const Json& object) {
        show_plain(session, whose, object);
    });
}

// The words for the outcome of an entry: "added ann@site.test", or an object with the word as a
// member.
struct Answers {
    const char* field;
    const char *yes, *no;
};

int run_on_words(Session& session, const Arguments& arguments, const Answers& answers,
                 const std::function<int(const AddressList&, Report&)>& work) {
    return run_on_list(session, arguments, work, [&](const string& whose, const Json& object) {
        const bool yes = object.at(answers.field).get<bool>();
        session.out.line(fmt::format("{}{} {}", lead(whose), yes ? answers.yes : answers.no,
                                     printable(entry_of(object))));
    });
}

// A list that nothing reads is mostly a name that was mistyped.
void check_known(const Arguments& arguments, const AddressList* list) {
    const std::vector<string> known = known_lists();
    const bool is_known = std::find(known.begin(), known.end(), arguments.list) != known.end();
    if (is_known || arguments.any_name || (list != nullptr && list->exists())) return;
    const string near = nearest(arguments.list, known);
    throw Failure(
        kExitData,
        fmt::format("there is no list \"{}\"{}; --any-name makes a list of another name",
                    printable(arguments.list),
                    near.empty() ? fmt::format("; the store's are {}", fmt::join(known, ", "))
                                 : fmt::format("; did you mean \"{}\"?", near)));
}

// What adding the entry would do.
Added would_add(const AddressList& list, const string& entry) {
    if (!list.exists()) return Added::added;
    const std::vector<string> lines = list.lines();
    if (std::find(lines.begin(), lines.end(), entry) != lines.end()) return Added::present;
    return lines.size() > kListLines ? Added::full : Added::added;
}

Added add(const AddressList& list, const string& entry, bool dry_run) {
    return dry_run ? would_add(list, entry) : list.add(entry);
}

int run_add(Session& session, const Arguments& arguments) {
    std::for_each(arguments.words.begin(), arguments.words.end(), check_entry);
    const bool many = !arguments.choice.address;
    if (many) check_known(arguments, nullptr);
    const auto work = [&](const AddressList& list, Report& report) {
        if (!many) check_known(arguments, &list);
        for (const string& entry : arguments.words) {
            const Added added = add(list, entry, arguments.dry_run);
            if (added == Added::full) throw full(list);
            report.object({{"entry", entry}, {"added", added == Added::added}});
        }
        return kExitOk;
    };
    const char* done = arguments.dry_run ? "would add" : "added";
    return run_on_words(session, arguments, {"added", done, "was there:"}, work);
}

// A Failure if there is no such list.
bool is_in(const AddressList& list, const string& entry) {
    const std::vector<string> lines = list.lines();
    return std::find(lines.begin(), lines.end(), entry) != lines.end();
}

int run_remove(Session& session, const Arguments& arguments) {
    const auto work = [&](const AddressList& list, Report& report) {
        for (const string& entry : arguments.words) {
            const bool there = arguments.dry_run ? is_in(list, entry) : list.remove(entry);
            report.object({{"entry", entry}, {"removed", there}});
        }
        return kExitOk;
    };
    const char* done = arguments.dry_run ? "would remove" : "removed";
    return run_on_words(session, arguments, {"removed", done, "was not there:"}, work);
}

// Asks a question about each word: exit code 0 if the answer is yes for all of them.
int ask(Session& session, const Arguments& arguments, const char* field,
        bool (AddressList::*question)(const string&) const) {
    const auto work = [&](const AddressList& list, Report& report) {
        bool all = true;
        for (const string& word : arguments.words) {
            const bool yes = (list.*question)(word);
            report.object({{"entry", word}, {field, yes}});
            all = all && yes;
        }
        return all ? kExitOk : kExitNo;
    };
    return run_on_words(session, arguments, {field, "yes:", "no:"}, work);
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
    const auto work = [&](const AddressList& list, Report& report) {
        if (arguments.dry_run) {
            report.object({{"entry", list.line(line)}});
        } else {
            list.replace(line, arguments.entry);
        }
        return kExitOk;
    };
    return run_on_list(session, arguments, work, [&](const string&, const Json& object) {
        session.out.line(fmt::format("would replace {} by {}", printable(entry_of(object)),
                                     printable(arguments.entry)));
    });
}

struct Tally {
    std::uint64_t added = 0, present = 0, refused = 0;
};

void import_line(Report& report, const AddressList& list, const Input& input,
                 const LineReader& reader, bool dry_run, Tally& tally) {
    const string& entry = reader.line();
    if (entry.empty() && !reader.cut()) return;
    if (const char* reason = reader.cut() ? "it is too long" : against_entry(entry)) {
        ++tally.refused;
        report.error(Failure(kExitData, fmt::format("{}:{}: entry is refused: {}", input.name,
                                                    reader.number(), reason)));
        return;
    }
    const Added added = add(list, entry, dry_run);
    if (added == Added::full) {
        const Failure failure = full(list);
        throw Failure(failure.code(), fmt::format("{}:{}: {} ({} were added)", input.name,
                                                  reader.number(), failure.what(), tally.added));
    }
    ++(added == Added::added ? tally.added : tally.present);
}

int import_all(const AddressList& list, const Input& input, bool dry_run, Report& report) {
    LineReader reader(input, [&] { report.fed(); });
    Tally tally;
    for (const std::uint64_t size = size_of(input); reader.next();) {
        import_line(report, list, input, reader, dry_run, tally);
        report.progress(reader.bytes(), size);
    }
    report.object({{"added", tally.added}, {"present", tally.present}, {"refused", tally.refused}});
    return kExitOk;
}

int run_import(Session& session, const Arguments& arguments) {
    const NamedList named = named_list(arguments);
    const Input input = open_input(arguments.file);
    Job job;
    job.progress = "importing " + input.name + ", bytes";
    job.owner = [&](std::size_t) { return owner_of_list(named); };
    job.input = [&](std::size_t) { return Fd(::fcntl(input.fd, F_DUPFD_CLOEXEC, 0)); };
    job.work = [&](std::size_t, int fd, Report& report) {
        check_known(arguments, &named.list);
        return import_all(named.list, {Fd(), fd, input.name}, arguments.dry_run, report);
    };
    job.show = [&](std::size_t, const Json& tally) {
        if (session.json) return session.out.object(tally);
        const auto number = [&](const char* field) { return tally.at(field).get<std::uint64_t>(); };
        session.out.line(fmt::format("{} {}added, {} were there, {} refused", number("added"),
                                     arguments.dry_run ? "would be " : "", number("present"),
                                     number("refused")));
    };
    return run_job(session, job).code;
}

Verb& declare_name(Verb& verb, Arguments& arguments) {
    verb.text("LIST", arguments.list, "The list's name, as whitelist").required();
    return declare_scope(verb, arguments);
}

// The list of one mailbox.
Verb& declare_list(Verb& verb, Arguments& arguments) {
    return declare_name(verb.address(arguments.choice.address).required(), arguments);
}

// The lists of this name of one or many mailboxes.
Verb& declare_lists(Verb& verb, Arguments& arguments) {
    return declare_name(verb.choice(arguments.choice), arguments);
}

void declare_show(Verb& verb, Arguments& arguments) {
    declare_lists(verb, arguments)
        .flag("--sorted", arguments.sorted, "In the order of the alphabet, without line numbers");
}

void declare_plain(Verb& verb, Arguments& arguments) { declare_list(verb, arguments); }

void declare_any_name(Verb& verb, Arguments& arguments) {
    verb.flag("--any-name", arguments.any_name, "Make a list that the store does not know");
}

void declare_entries(Verb& verb, Arguments& arguments) {
    declare_lists(verb, arguments).texts("ENTRY", arguments.words, "Entries").required();
}

void declare_dry_run(Verb& verb, Arguments& arguments) {
    verb.flag("--dry-run", arguments.dry_run, "Only say what would be done");
}

void declare_remove(Verb& verb, Arguments& arguments) {
    declare_entries(verb, arguments);
    declare_dry_run(verb, arguments);
}

void declare_add(Verb& verb, Arguments& arguments) {
    declare_remove(verb, arguments);
    declare_any_name(verb, arguments);
}

void declare_addresses(Verb& verb, Arguments& arguments) {
    declare_lists(verb, arguments)
        .texts("WHO", arguments.words, "Addresses to match with the list's patterns")
        .required();
}

void declare_replace(Verb& verb, Arguments& arguments) {
    declare_list(verb, arguments)
        .text("LINE", arguments.line, "The line's number, as show has it")
        .required()
        .text("ENTRY", arguments.entry, "The new entry")
        .required();
    declare_dry_run(verb, arguments);
}

void declare_import(Verb& verb, Arguments& arguments) {
    declare_list(verb, arguments)
        .text("FILE", arguments.file, "One entry a line (default: standard input)");
    declare_any_name(verb, arguments);
    declare_dry_run(verb, arguments);
}

}  // namespace

void add_list_verbs(const VerbGroup& top) {
    const VerbGroup list = top.group("list", "About address lists");
    add_list_names(list);
    list.reader("show", "Show the lines with their numbers", declare_show, run_show);
    list.verb("add", "Add entries", declare_add, run_add);
    list.verb("remove", "Remove entries", declare_remove, run_remove);
    list.reader("find", "Say whether entries are in the list (exit code 1: not all)",
                declare_entries, run_find);
    list.reader("match", "Say whether addresses match a pattern of the list (exit code 1: not all)",
                declare_addresses, run_match);
    list.verb("replace", "Replace a line", declare_replace, run_replace);
    list.verb("import", "Add the entries of a file", declare_import, run_import);
    list.reader("export", "Write out the entries, one a line", declare_plain, run_export);
}

}  // namespace Tessaly::tool
