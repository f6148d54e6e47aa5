// message - removes and moves single messages, and changes their flags.
#include <fmt/format.h>

#include <algorithm>

#include "tools/cli/address.h"
#include "tools/cli/input.h"
#include "tools/cli/text.h"
#include "tools/cli/word_mark.h"
#include "tools/spool/mailbox_job.h"
#include "tools/verbs/removal.h"
#include "tools/verbs/verbs.h"
#include "tools/work/message_change.h"
#include "tools/work/message_name.h"
#include "tools/work/quota_daemon.h"

namespace Tessaly::tool {

namespace {

using std::string;
using Names = std::vector<string>;

struct Arguments {
    string address;
    string folder;
    Names names;
    string to;
    bool dry_run = false;
};

constexpr char kStandardInput[] = "-";

void add_lines_of_standard_input(Names& names) {
    const Input input = open_input("");
    for (LineReader reader(input); reader.next();) {
        if (reader.cut()) throw Failure(kExitData, "standard input: a line is too long for a name");
        if (!reader.line().empty()) names.push_back(reader.line());
    }
}

// The names on the command line, with those on standard input in the place of "-".
Names names_of(const Names& words) {
    if (std::count(words.begin(), words.end(), kStandardInput) > 1) {
        throw Failure(kExitUsage, "standard input (-) can be given once");
    }
    Names names;
    for (const string& word : words) {
        word == kStandardInput ? add_lines_of_standard_input(names) : names.push_back(word);
    }
    for (const string& name : names) check_message_name(name);
    return names;
}

string name_at(const string& path) { return path.substr(path.rfind('/') + 1); }

using Work = std::function<void(const TSMailUserId&, Report&)>;
using Show = std::function<void(const Json&)>;

int run_on_messages(Session& session, const Arguments& arguments, bool changes_sizes,
                    const Work& work, const Show& show) {
    MailboxJob job;
    job.changes_sizes = changes_sizes && !arguments.dry_run;
    job.work = [&](const TSMailUserId& id, Report& report) {
        work(id, report);
        return kExitOk;
    };
    job.show = [&](const TSMailUserId&, const Json& object) { show(object); };
    return run_on(session, one_mailbox(arguments.address), job);
}

void declare_messages(Verb& verb, Arguments& arguments, const char* more = "") {
    verb.address(arguments.address);
    verb.text("FOLDER", arguments.folder, "The folder, as Work/2024").required();
    verb.texts("NAME", arguments.names,
               string("File names of messages, - for those on standard input, one a line") + more)
        .required();
}

// ---- rm

void remove_one(const TSMailUserId& id, const Arguments& arguments, const string& name,
                Report& report) {
    const string path = present_message(id, arguments.folder, name);
    if (arguments.dry_run) {
        return report_deed(report, kRemove, path, amount_of_message(path), true);
    }
    const MessageRemoval removal = delete_message(id, arguments.folder, name);
    report_removal(report, kRemove, removal.path, removal);
}

// A message that cannot be removed does not prevent the others.
void remove_each(const TSMailUserId& id, const Arguments& arguments, const Names& names,
                 Report& report) {
    const SignalHold signals;
    for (const string& name : names) {
        signals.check();
        try {
            remove_one(id, arguments, name, report);
        } catch (const Failure& failure) {
            report.error(failure);
        }
    }
}

// The bytes of the messages that were removed or moved; nothing if there were none.
class Sum {
  public:
    void add(const Json& object) {
        if (!object.at("done").get<bool>()) return;
        bytes_ = bytes_.value_or(0) + object.at("bytes").get<long long>();
    }
    // Tells the quota daemon that a folder gained these bytes (sign 1) or lost them (-1).
    void tell(const string& address, const string& folder, int sign) const {
        if (bytes_) QuotaDaemon().tell(mailbox_of(address).mailfolder(folder), sign * *bytes_);
    }

  private:
    std::optional<long long> bytes_;
};

int run_rm(Session& session, const Arguments& arguments) {
    check_folder_name(arguments.folder);
    const Names names = names_of(arguments.names);
    Sum gone;
    const auto work = [&](const TSMailUserId& id, Report& report) {
        remove_each(id, arguments, names, report);
    };
    const int code = run_on_messages(session, arguments, true, work, [&](const Json& deed) {
        show_deed(session, deed);
        gone.add(deed);
    });
    gone.tell(arguments.address, arguments.folder, -1);
    return code;
}

void declare_rm(Verb& verb, Arguments& arguments) {
    declare_messages(verb, arguments);
    declare_dry_run(verb, arguments.dry_run);
}

// ---- move, flag

void report_failures(const MessageChanges& changes, Report& report) {
    for (const Failure& failure : changes.failed) report.error(failure);
    if (!changes.counted) {
        report.warn("a size record was not corrected; the mailbox needs a recount");
    }
}

void report_moved(const MessageChanges& changes, bool dry_run, Report& report) {
    for (const MessageChange& change : changes.done) {
        report.object({{"name", name_at(change.to)},
                       {"from", change.from},
                       {"path", change.to},
                       {"bytes", change.bytes},
                       {"done", !dry_run}});
    }
    report_failures(changes, report);
}

void show_moved(Session& session, const Json& moved) {
    if (session.json) return session.out.object(moved);
    session.out.line(fmt::format(
        "{} {} to {}", moved.at("done").get<bool>() ? "moved" : "would move",
        printable(moved.at("from").get<string>()), printable(moved.at("path").get<string>())));
}

int run_move(Session& session, const Arguments& arguments) {
    check_folder_name(arguments.folder);
    check_folder_name(arguments.to);
    if (arguments.to == arguments.folder) {
        throw Failure(kExitUsage, "--to names the folder that the messages are in");
    }
    const Names names = names_of(arguments.names);
    Sum moved;
    const auto work = [&](const TSMailUserId& id, Report& report) {
        const SignalHold signals;
        move_messages(id, arguments.folder, arguments.to, names,
                      {arguments.dry_run, signals, [&](const MessageChanges& c) {
                           report_moved(c, arguments.dry_run, report);
                       }});
    };
    const int code = run_on_messages(session, arguments, true, work, [&](const Json& object) {
        show_moved(session, object);
        moved.add(object);
    });
    moved.tell(arguments.address, arguments.folder, -1);
    moved.tell(arguments.address, arguments.to, 1);
    return code;
}

void declare_move(Verb& verb, Arguments& arguments) {
    declare_messages(verb, arguments);
    verb.text("--to", arguments.to, "The folder that they go to").required();
    verb.flag("--dry-run", arguments.dry_run, "Only say what would be moved");
}

bool is_flags(const string& word) {
    return word.size() > 1 && (word.front() == '+' || word.front() == '-') &&
           word.find_first_not_of(kMessageFlags, 1) == string::npos;
}

// Takes the words such as "+F" and "-S" out of the names.
FlagChange take_flags(Names& words) {
    FlagChange change;
    for (const string& word : words) {
        if (is_flags(word)) (word.front() == '+' ? change.added : change.removed) += word.substr(1);
    }
    words.erase(std::remove_if(words.begin(), words.end(), is_flags), words.end());
    const bool both = change.added.find_first_of(change.removed) != string::npos;
    if (both) throw Failure(kExitUsage, "a flag is added and taken away");
    if (change.added.empty() && change.removed.empty()) {
        throw Failure(kExitUsage, fmt::format("give flags, as +F or -S; the flags are {}",
                                              fmt::join(kMessageFlags, ", ")));
    }
    if (words.empty()) throw Failure(kExitUsage, "NAME is missing");
    return change;
}

void report_flagged(const MessageChanges& changes, bool dry_run, Report& report) {
    for (const MessageChange& change : changes.done) {
        const string name = name_at(change.to);
        report.object({{"name", name},
                       {"path", change.to},
                       {"flags", parts_of(name).flags},
                       {"changed", change.from != change.to},
                       {"done", !dry_run}});
    }
    report_failures(changes, report);
}

void show_flagged(Session& session, const Json& flagged) {
    if (session.json) return session.out.object(flagged);
    const bool done = flagged.at("done").get<bool>();
    const char* what = !flagged.at("changed").get<bool>() ? "unchanged"
                       : done                             ? "flagged"
                                                          : "would flag";
    const auto flags = flagged.at("flags").get<string>();
    session.out.line(fmt::format("{} {}: {}", what, printable(flagged.at("path").get<string>()),
                                 flags.empty() ? "no flags" : printable(flags)));
}

int run_flag(Session& session, const Arguments& arguments) {
    check_folder_name(arguments.folder);
    Names words = arguments.names;
    const FlagChange change = take_flags(words);
    const Names names = names_of(words);
    const auto work = [&](const TSMailUserId& id, Report& report) {
        const SignalHold signals;
        flag_messages(id, arguments.folder, change, names,
                      {arguments.dry_run, signals, [&](const MessageChanges& c) {
                           report_flagged(c, arguments.dry_run, report);
                       }});
    };
    return run_on_messages(session, arguments, false, work,
                           [&](const Json& object) { show_flagged(session, object); });
}

void declare_flag(Verb& verb, Arguments& arguments) {
    declare_messages(verb, arguments, "; +FLAGS adds flags, -FLAGS takes them away, as +FS -T");
    verb.flag("--dry-run", arguments.dry_run, "Only say what would be changed");
}

}  // namespace

void add_message_verbs(const VerbGroup& top) {
    const VerbGroup message = top.group("message", "Single messages");
    message.verb("rm", "Remove messages from a folder", declare_rm, run_rm);
    message.verb("move", "Move messages to another folder", declare_move, run_move);
    message.verb("flag", "Change the flags of messages", declare_flag, run_flag);
}

}  // namespace Tessaly::tool
