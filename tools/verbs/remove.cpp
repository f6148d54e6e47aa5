// rm, restore - remove folders and bring them back.
#include <fmt/format.h>

#include "tools/cli/address.h"
#include "tools/cli/text.h"
#include "tools/verbs/each_mailbox.h"
#include "tools/verbs/removal.h"
#include "tools/verbs/verbs.h"
#include "tools/work/folder.h"
#include "tools/work/scheduled.h"

namespace Tessaly::tool {

namespace {

using std::string;

// ---- rm

struct FolderArguments {
    Choice choice;
    string folder;
    bool now = false;
    bool force = false;
    bool dry_run = false;
};

bool is_system_folder(const string& folder) { return tsl_is_system_folder(folder.c_str()) != 0; }

void check_system_folder(const string& folder, bool force) {
    if (force || !is_system_folder(folder)) return;
    throw Failure(kExitData, printable(folder) +
                                 ": system folder, which every mailbox has; --force removes what "
                                 "is in it");
}

int remove_folder(const TSMailUserId& id, const FolderArguments& arguments, mode_t umask,
                  Report& report) {
    const Deed& deed = arguments.now ? kRemove : kSchedule;
    const string path = present_folder(id, arguments.folder);
    if (arguments.dry_run) {
        report_deed(report, deed, path, amount_below(path), true);
        return kExitOk;
    }
    const auto remove = arguments.now ? delete_folder : schedule_folder;
    report_removal(report, deed, path, remove(id, arguments.folder));
    if (is_system_folder(arguments.folder)) FolderMaker(umask).make_folder(id, arguments.folder);
    return kExitOk;
}

// Runs the work on the mailboxes. `folder` is the folder that becomes smaller or larger.
int run_removal(Session& session, const Choice& choice, const string& folder, bool dry_run,
                MailboxWork work) {
    const Mailboxes mailboxes = mailboxes_of(choice);
    MailboxJob job;
    job.progress = mailboxes.all ? "changing mailboxes" : "";
    job.changes_sizes = !dry_run;
    job.work = passing_over(mailboxes, std::move(work));
    job.show = [&](const TSMailUserId& id, const Json& deed) {
        show_deed(session, addressed(mailboxes, id, deed));
        tell_daemon(id.mailfolder(folder), deed);
    };
    return run_on(session, mailboxes, job);
}

int run_rm(Session& session, const FolderArguments& arguments) {
    check_folder_name(arguments.folder);
    check_system_folder(arguments.folder, arguments.force);
    const mode_t umask = session.callers_umask;
    return run_removal(session, arguments.choice, arguments.folder, arguments.dry_run,
                       [&](const TSMailUserId& id, Report& report) {
                           return remove_folder(id, arguments, umask, report);
                       });
}

void declare_rm(Verb& verb, FolderArguments& arguments) {
    verb.choice(arguments.choice)
        .text("FOLDER", arguments.folder, "The folder, as Work/2024; those below it go with it")
        .required();
    verb.flag("--now", arguments.now, "Remove it at once (default: at the next sweep)")
        .flag("--force", arguments.force, "A system folder too; it is there again, empty");
    declare_dry_run(verb, arguments.dry_run);
}

// ---- restore

struct RestoreArguments {
    Choice choice;
    string folder;
    bool dry_run = false;
};

int restore(const TSMailUserId& id, const RestoreArguments& arguments, mode_t umask,
            Report& report) {
    const string path = id.mailfolder(arguments.folder);
    const string hidden = scheduled_folder(id, arguments.folder);
    if (arguments.dry_run) {
        demand_free_place(id, arguments.folder);
        report_deed(report, kRestore, path, amount_of_scheduled(hidden), true);
        return kExitOk;
    }
    report_removal(report, kRestore, path,
                   restore_folder(id, hidden, arguments.folder, FolderMaker(umask)));
    return kExitOk;
}

int run_restore(Session& session, const RestoreArguments& arguments) {
    check_folder_name(arguments.folder);
    const mode_t umask = session.callers_umask;
    return run_removal(session, arguments.choice, arguments.folder, arguments.dry_run,
                       [&](const TSMailUserId& id, Report& report) {
                           return restore(id, arguments, umask, report);
                       });
}

void declare_restore(Verb& verb, RestoreArguments& arguments) {
    verb.choice(arguments.choice)
        .text("FOLDER", arguments.folder, "The folder as it was called, as Work/2024")
        .required();
    declare_dry_run(verb, arguments.dry_run);
}

}  // namespace

void add_removal_verbs(const VerbGroup& top) {
    top.verb("rm", "Remove a folder and those below it", declare_rm, run_rm);
    top.verb("restore", "Bring back a folder that was scheduled for removal", declare_restore,
             run_restore);
}

}  // namespace Tessaly::tool
