// recount - rebuilds the stored sizes from the folders.
#include <fmt/format.h>

#include "tools/cli/text.h"
#include "tools/spool/mailbox_job.h"
#include "tools/verbs/verbs.h"
#include "tools/work/folder.h"
#include "tools/work/quota_daemon.h"
#include "tools/work/records.h"
#include "tools/work/recount.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct Arguments {
    Choice choice;
    bool marked = false;
    bool dry_run = false;
    std::optional<string> jobs;
};

// ---- the worker's part

Json json_of(const Recounted& record) {
    Json object;
    object["messages"] = record.after.count;
    object["bytes"] = record.after.size;
    object["messages_before"] = record.before.count;
    object["bytes_before"] = record.before.size;
    object["damaged_before"] = record.before.damaged;
    return object;
}

Json json_of(const TSMailUserId& id, const MailboxRecount& result, bool dry_run) {
    Json object = {{"address", id.address(true)}, {"path", id.mailpath()}, {"done", !dry_run}};
    object.update(json_of(result.mailbox));
    object["dirty_before"] = result.was_marked;
    object["dirty"] = result.is_marked;
    object["corrected"] = Json::array();
    for (const Recounted& folder : result.folders) {
        if (!folder.changed()) continue;
        Json row = {{"folder", folder.name}};
        row.update(json_of(folder));
        object["corrected"].push_back(row);
    }
    return object;
}

struct Plan {
    bool all, only_marked, dry_run;
};

// A mailbox that was removed while all are recounted is skipped.
int recount_one(const TSMailUserId& id, const Plan& plan, Report& report) {
    try {
        if (plan.only_marked && !is_marked(id)) return kExitOk;
        const auto done = [&](std::size_t n, std::size_t of) {
            if (!plan.all) report.progress(n, of);
        };
        const MailboxRecount result = plan.dry_run ? expected_recount(id, done) : recount(id, done);
        report.object(json_of(id, result, plan.dry_run));
        if (result.is_marked && !plan.dry_run) {
            report.warn(printable(id.address(true)) + " was marked again meanwhile");
        }
        return kExitOk;
    } catch (const Failure&) {
        if (plan.all && !mailbox_exists(id)) return kExitOk;
        throw;
    }
}

// ---- what is shown

string total_text(const Json& messages, const Json& bytes) {
    return fmt::format("{} ({})", messages_text(messages.get<std::uint64_t>()),
                       size_text(bytes.get<std::uint64_t>()));
}

bool is_changed(const Json& record) {
    return record.at("damaged_before").get<bool>() ||
           record.at("messages") != record.at("messages_before") ||
           record.at("bytes") != record.at("bytes_before");
}

string change_text(const string& name, const Json& record, bool done) {
    const bool would = !done && is_changed(record);
    string now = fmt::format("{}: {}{}", printable(name), would ? "would become " : "",
                             total_text(record.at("messages"), record.at("bytes")));
    if (!is_changed(record)) return now;
    const string before = record.at("damaged_before").get<bool>()
                              ? "damaged"
                              : total_text(record.at("messages_before"), record.at("bytes_before"));
    return fmt::format("{}, kept {} {}", now, done ? "was" : "is", before);
}

void show_lines(Session& session, const string& address, const Json& object, bool always) {
    const Json& corrected = object.at("corrected");
    const bool done = object.at("done").get<bool>();
    for (const Json& folder : corrected) {
        session.out.line(
            change_text(address + ' ' + folder.at("folder").get<string>(), folder, done));
    }
    const bool marked = object.at("dirty_before").get<bool>();
    if (!always && !marked && corrected.empty() && !is_changed(object)) return;
    const char* mark = !marked ? "" : done ? "; it was marked" : "; it is marked";
    session.out.line(change_text(address, object, done) + mark);
}

// The parent tells the daemon, because the mailbox's owner may have no right to its socket.
void tell(QuotaDaemon& daemon, const Json& object) {
    if (!object.at("done").get<bool>()) return;
    const auto change =
        object.at("bytes").get<long long>() - object.at("bytes_before").get<long long>();
    if (change != 0) daemon.tell(object.at("path").get<string>(), change);
}

int run_recount(Session& session, const Arguments& arguments) {
    const Mailboxes mailboxes = mailboxes_of(arguments.choice);
    const Plan plan = {mailboxes.all, arguments.marked, arguments.dry_run};
    const bool all = mailboxes.all;
    std::size_t recounted = 0;
    QuotaDaemon daemon;
    MailboxJob job;
    job.progress = all ? "recounting mailboxes" : "recounting folders";
    job.jobs = jobs_of(arguments.jobs);
    job.changes_sizes = !arguments.dry_run;
    job.work = [=](const TSMailUserId& id, Report& report) {
        return recount_one(id, plan, report);
    };
    job.show = [&](const TSMailUserId& id, const Json& object) {
        ++recounted;
        if (session.json) {
            session.out.object(object);
        } else {
            show_lines(session, id.address(true), object, !all || session.verbosity > 0);
        }
        tell(daemon, object);
    };
    const JobResult result = run_quietly_on(session, mailboxes, job);
    if (all && !session.json) {
        session.out.line(fmt::format("{} mailbox{} {}", recounted, recounted == 1 ? "" : "es",
                                     plan.dry_run ? "counted" : "recounted"));
        show_left_out(session, result);
    }
    return result.code;
}

void declare_recount(Verb& verb, Arguments& arguments) {
    verb.choice(arguments.choice)
        .flag("--marked", arguments.marked, "Recount only what is marked for a recount")
        .flag("--dry-run", arguments.dry_run, "Only say what would be written")
        .jobs(arguments.jobs);
}

}  // namespace

void add_recount_verb(const VerbGroup& top) {
    top.verb("recount", "Rebuild the stored sizes from the folders", declare_recount, run_recount);
}

}  // namespace Tessaly::tool
