// rm, sweep, mailbox remove, message rm - what takes things away; check-name - whether a folder's
// name is a valid one.
#include <fmt/format.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <algorithm>

#include "tools/cli/address.h"
#include "tools/cli/descriptors.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/spool/identity.h"
#include "tools/spool/mailboxes.h"
#include "tools/verbs/verbs.h"
#include "tools/work/folder.h"
#include "tools/work/quota_daemon.h"
#include "tools/work/removal.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct Deed {
    const char* verb;  // for "would ..."
    const char* done;
};
constexpr Deed kRemove = {"remove", "removed"};
constexpr Deed kSchedule = {"schedule", "scheduled"};

void show(Session& session, const Deed& deed, const string& path, const Amount& amount,
          bool dry_run) {
    if (session.json) {
        session.out.object(Json{{"path", path},
                                {"action", deed.verb},
                                {"done", !dry_run},
                                {"messages", amount.messages},
                                {"bytes", amount.bytes},
                                {"other_files", amount.others}});
    } else {
        const string what = dry_run ? fmt::format("would {}", deed.verb) : deed.done;
        session.out.line(fmt::format("{} {}: {}", what, printable(path), amount_text(amount)));
    }
    if (amount.error != 0) {
        session.warn(printable(path) + " could not be looked through: " + error_text(amount.error));
    }
}

void show_removal(Session& session, const Deed& deed, const string& path, const Removal& removal) {
    show(session, deed, path, removal.amount, false);
    if (removal.counted) return;
    session.warn(printable(path) + " is missing in a size record; the mailbox needs a recount");
}

// After everything else: the daemon may take its time.
void tell_daemon(const string& path, const Amount& gone) {
    if (gone.messages > 0) QuotaDaemon().tell(path, -static_cast<long long>(gone.bytes));
}

void declare_dry_run(Verb& verb, bool& dry_run) {
    verb.flag("--dry-run", dry_run, "Only say what and how much would be removed");
}

// ---- rm

struct FolderArguments {
    string address;
    string folder;
    bool now = false;
    bool force = false;
    bool dry_run = false;
};

void check_system_folder(const string& folder, bool force) {
    if (force || tsl_is_system_folder(folder.c_str()) == 0) return;
    throw Failure(kExitData, printable(folder) +
                                 " is a system folder, which every mailbox has: --force removes "
                                 "what is in it");
}

int run_rm(Session& session, const FolderArguments& arguments) {
    check_folder_name(arguments.folder);
    check_system_folder(arguments.folder, arguments.force);
    const TSMailUserId id = existing_mailbox(arguments.address);
    const AsOwner owner(session, id);
    const string path = present_folder(id, arguments.folder);
    const Deed& deed = arguments.now ? kRemove : kSchedule;
    if (arguments.dry_run) {
        show(session, deed, path, amount_below(path), true);
        return kExitOk;
    }
    const auto remove = arguments.now ? delete_folder : schedule_folder;
    const Removal removal = remove(id, arguments.folder);
    show_removal(session, deed, path, removal);
    if (tsl_is_system_folder(arguments.folder.c_str()) != 0) {
        FolderMaker(session.callers_umask).make_folder(id, arguments.folder);
    }
    tell_daemon(path, removal.amount);
    return kExitOk;
}

void declare_rm(Verb& verb, FolderArguments& arguments) {
    verb.address(arguments.address)
        .text("FOLDER", arguments.folder, "The folder, as Work/2024; those below it go with it")
        .required();
    verb.flag("--now", arguments.now, "Remove it at once (default: at the next sweep)")
        .flag("--force", arguments.force, "A system folder too; it is there again, empty");
    declare_dry_run(verb, arguments.dry_run);
}

// ---- sweep

struct SweepArguments {
    std::optional<string> address;
    bool all = false;
    bool dry_run = false;
};

// One that does not go does not keep the others.
int sweep_one(Session& session, const string& path, bool dry_run) {
    const Amount amount = amount_below(path);
    try {
        if (!dry_run) delete_tree(path);
        show(session, kRemove, path, amount, dry_run);
        return kExitOk;
    } catch (const Failure& failure) {
        session.error(failure.what());
        return failure.code();
    }
}

int sweep(Session& session, const TSMailUserId& id, bool dry_run) {
    const AsOwner owner(session, id);
    int worst = kExitOk;
    for (const string& path : scheduled_in(id)) {
        worst = std::max(worst, sweep_one(session, path, dry_run));
    }
    return worst;
}

int run_sweep(Session& session, const SweepArguments& arguments) {
    int worst = kExitOk;
    for (const TSMailUserId& id : chosen_mailboxes(arguments.address, arguments.all)) {
        worst = std::max(worst, sweep(session, id, arguments.dry_run));
    }
    return worst;
}

void declare_sweep(Verb& verb, SweepArguments& arguments) {
    verb.text("ADDRESS", arguments.address, "The mailbox, as ann@site.test")
        .flag("--all", arguments.all, "All mailboxes");
    declare_dry_run(verb, arguments.dry_run);
}

// ---- mailbox remove

struct MailboxArguments {
    string address;
    bool yes = false;
    bool dry_run = false;
};

// A line from the terminal, without its end.
string answer() {
    string line;
    char c = 0;
    while (retry([&] { return ::read(STDIN_FILENO, &c, 1); }) == 1 && c != '\n') line += c;
    return line;
}

bool agreed(const Session& session, const TSMailUserId& id, const Amount& amount) {
    if (::isatty(STDIN_FILENO) == 0) {
        throw Failure(kExitUsage, "nobody can be asked here: to remove a mailbox needs --yes");
    }
    session.error(fmt::format("{} has {}. Remove all of it? [y/N]", printable(id.address(true)),
                              amount_text(amount)));
    const string given = folded(answer());
    return given == "y" || given == "yes";
}

int run_mailbox_remove(Session& session, const MailboxArguments& arguments) {
    const TSMailUserId id = mailbox_of(arguments.address);
    demand_home(id);
    const string home = id.homepath();
    const Amount amount = amount_below(home);
    if (arguments.dry_run) {
        show(session, kRemove, home, amount, true);
        return kExitOk;
    }
    if (!arguments.yes && !agreed(session, id, amount)) {
        throw Failure(kExitUsage, "nothing was removed");
    }
    delete_mailbox(id);
    show(session, kRemove, home, amount, false);
    tell_daemon(id.mailpath(), amount);
    return kExitOk;
}

void declare_mailbox_remove(Verb& verb, MailboxArguments& arguments) {
    verb.address(arguments.address).flag("--yes", arguments.yes, "Do not ask");
    declare_dry_run(verb, arguments.dry_run);
}

// ---- message rm

struct MessageArguments {
    string address;
    string folder;
    string name;
    bool dry_run = false;
};

int run_message_rm(Session& session, const MessageArguments& arguments) {
    check_folder_name(arguments.folder);
    check_message_name(arguments.name);
    const TSMailUserId id = existing_mailbox(arguments.address);
    const AsOwner owner(session, id);
    const string path = present_message(id, arguments.folder, arguments.name);
    if (arguments.dry_run) {
        show(session, kRemove, path, amount_of_message(path), true);
        return kExitOk;
    }
    const MessageRemoval removal = delete_message(id, arguments.folder, arguments.name);
    show_removal(session, kRemove, removal.path, removal);
    tell_daemon(id.mailfolder(arguments.folder), removal.amount);
    return kExitOk;
}

void declare_message_rm(Verb& verb, MessageArguments& arguments) {
    verb.address(arguments.address);
    verb.text("FOLDER", arguments.folder, "The folder, as Work/2024").required();
    verb.text("NAME", arguments.name, "The message's file name").required();
    declare_dry_run(verb, arguments.dry_run);
}

// ---- check-name

struct NameArguments {
    string name;
    bool path = false;
    bool reserved = false;
};

constexpr unsigned kIsPath = 1, kNoReserved = 2;
constexpr int kIsReserved = 2;

// Why a component is malformed, or "".
string against_component(const string& component) {
    if (component.empty()) return "a name is empty";
    if (component.front() == '.') return "a name begins with '.'";
    const auto at = component.find_first_of("/\\?*:\"<>|");
    return at == string::npos ? "" : fmt::format("a name holds a '{}'", component[at]);
}

string why_malformed(const string& name, bool is_path) {
    for (std::size_t begin = 0, end = 0; end != string::npos; begin = end + 1) {
        end = is_path ? name.find('/', begin) : string::npos;
        string reason = against_component(name.substr(begin, end - begin));
        if (!reason.empty()) return reason;
    }
    return "it is malformed";
}

string reason_of(int answer, const NameArguments& arguments) {
    if (answer == 0) return "";
    if (answer == kIsReserved) return "\"new\", \"cur\" and \"tmp\" are parts of a folder";
    return why_malformed(arguments.name, arguments.path);
}

int run_check_name(Session& session, const NameArguments& arguments) {
    const unsigned flags = (arguments.path ? kIsPath : 0) | (arguments.reserved ? kNoReserved : 0);
    const int answer = tsl_is_valid_mailbox_name(arguments.name.c_str(), flags);
    const string reason = reason_of(answer, arguments);
    if (session.json) {
        session.out.object(
            Json{{"name", arguments.name}, {"valid", answer == 0}, {"reason", reason}});
    } else {
        session.out.line(printable(arguments.name) +
                         (answer == 0 ? ": valid" : ": not valid, " + reason));
    }
    return answer == 0 ? kExitOk : kExitData;
}

void declare_check_name(Verb& verb, NameArguments& arguments) {
    verb.text("NAME", arguments.name, "The name to check").required();
    verb.flag("--path", arguments.path, "Names separated by '/' are allowed, as Work/2024")
        .flag("--reserved", arguments.reserved, "Refuse new, cur and tmp");
}

}  // namespace

void add_removal_verbs(const VerbGroup& top) {
    top.verb("rm", "Remove a folder and those below it", declare_rm, run_rm);
    top.verb("sweep", "Remove what was scheduled for removal", declare_sweep, run_sweep);
    top.group("mailbox", "Whole mailboxes")
        .verb("remove", "Remove a mailbox with all that belongs to it", declare_mailbox_remove,
              run_mailbox_remove);
    top.group("message", "Single messages")
        .verb("rm", "Remove a message from a folder", declare_message_rm, run_message_rm);
    top.verb("check-name", "Say whether a folder may be named so", declare_check_name,
             run_check_name);
}

}  // namespace Tessaly::tool
