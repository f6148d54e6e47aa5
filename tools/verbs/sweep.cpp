// sweep - removes the folders and homes that wait for it.
#include <unistd.h>

#include "tools/cli/text.h"
#include "tools/spool/directory_job.h"
#include "tools/spool/hidden_home.h"
#include "tools/spool/mailbox_job.h"
#include "tools/verbs/removal.h"
#include "tools/verbs/verbs.h"
#include "tools/work/scheduled.h"

namespace Tessaly::tool {

namespace {

using std::string;
using Age = std::optional<std::chrono::seconds>;

struct Arguments {
    Choice choice;
    std::optional<string> older;
    bool dry_run = false;
    std::optional<string> jobs;
};

// ---- folders

// A failure to remove this path does not prevent the others.
void sweep_one(const string& path, bool dry_run, Report& report) {
    const Amount amount = amount_below(path);
    try {
        if (!dry_run) sweep_path(path);
        report_deed(report, kRemove, path, amount, dry_run);
    } catch (const Failure& failure) {
        report.error(failure);
    }
}

JobResult sweep_folders(Session& session, const Mailboxes& mailboxes, const Arguments& arguments,
                        const Age& older) {
    const bool dry_run = arguments.dry_run;
    MailboxJob job;
    job.progress = "sweeping mailboxes";
    job.jobs = jobs_of(arguments.jobs);
    job.work = [=](const TSMailUserId& id, Report& report) {
        for (const string& path : scheduled_in(id, older)) sweep_one(path, dry_run, report);
        return kExitOk;
    };
    job.show = [&](const TSMailUserId&, const Json& object) { show_deed(session, object); };
    return run_quietly_on(session, mailboxes, job);
}

// ---- homes

// Empties a home that has the name `path` by now, as its owner. Returns the exit code.
int empty_home(Session& session, const Place& domain, const HiddenHome& home, const string& shown,
               bool dry_run, Json& deed) {
    Job job;
    job.owner = [&](std::size_t) { return owner_of_mailbox(step(domain, home.name)); };
    job.work = [&](std::size_t, int, Report& report) {
        const string path = home.path();
        const Amount amount = amount_below(path);
        if (!dry_run) clean_directory(path);
        report_deed(report, kRemove, shown, amount, dry_run);
        return kExitOk;
    };
    job.show = [&](std::size_t, const Json& object) { deed = object; };
    return run_job(session, job).code;
}

// The domain's owner renames the home and removes the empty one, the home's owner empties it.
int sweep_home(Session& session, const Place& domain, const HiddenHome& home, bool dry_run) {
    HiddenHome swept = home;
    Json deed;
    if (!dry_run) {
        run_in(session, domain, [&](int directory, Report&) { claim_home(directory, home); });
        swept = claimed(home);
    }
    const int code = empty_home(session, domain, swept, home.path(), dry_run, deed);
    if (code != kExitOk) return code;
    if (!dry_run) {
        run_in(session, domain, [&](int directory, Report&) { remove_home(directory, swept); });
    }
    show_deed(session, deed);
    return kExitOk;
}

JobResult sweep_homes(Session& session, const std::vector<HiddenHome>& homes, const Age& older,
                      bool dry_run) {
    JobResult result;
    for (const HiddenHome& home : homes) {
        int code = kExitOk;
        try {
            const Place domain = place_at(home.directory());
            if (older && !is_older(domain, home, *older)) continue;
            code = sweep_home(session, domain, home, dry_run);
        } catch (const Failure& failure) {
            session.error(failure.what());
            code = failure.code();
        }
        result.code = std::max(result.code, code);
        result.left_out += code == kExitOk ? 0 : 1;
    }
    return result;
}

// Whether the one mailbox that was asked for is gone, but for its hidden homes.
bool only_hidden(const Mailboxes& mailboxes, const std::vector<HiddenHome>& hidden) {
    if (mailboxes.all || hidden.empty()) return false;
    try {
        Homes().owner(mailboxes.ids.front());
    } catch (const Failure& failure) {
        return failure.code() == kExitNoUser;
    }
    return false;
}

int run_sweep(Session& session, const Arguments& arguments) {
    Age older;
    if (arguments.older) older = age_of("--older", *arguments.older);
    const Mailboxes mailboxes = mailboxes_of(arguments.choice);
    const std::vector<HiddenHome> hidden = hidden_homes_of(arguments.choice);
    JobResult result;
    if (!only_hidden(mailboxes, hidden)) {
        result = sweep_folders(session, mailboxes, arguments, older);
    }
    const JobResult homes = sweep_homes(session, hidden, older, arguments.dry_run);
    result = {std::max(result.code, homes.code), result.left_out + homes.left_out};
    if (mailboxes.all) show_left_out(session, result);
    return result.code;
}

void declare_sweep(Verb& verb, Arguments& arguments) {
    verb.choice(arguments.choice)
        .text("--older", arguments.older,
              "Only what was scheduled longer ago, as 7d, 12h or 8w (default: all)")
        .jobs(arguments.jobs);
    declare_dry_run(verb, arguments.dry_run);
}

}  // namespace

void add_sweep_verb(const VerbGroup& top) {
    top.verb("sweep", "Remove what was scheduled for removal", declare_sweep, run_sweep);
}

}  // namespace Tessaly::tool
