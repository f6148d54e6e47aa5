// expire - removes old messages from folders.
#include <fmt/format.h>

#include "tools/cli/address.h"
#include "tools/cli/text.h"
#include "tools/spool/mailbox_job.h"
#include "tools/verbs/verbs.h"
#include "tools/work/expiry.h"
#include "tools/work/quota_daemon.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct Arguments {
    Choice choice;
    std::vector<string> folders;
    string older;
    string by = "saved";
    bool flagged = false;
    bool dry_run = false;
    std::optional<string> jobs;
};

constexpr Word kTimes[] = {
    {static_cast<int>(AgeBy::saved), "saved"},
    {static_cast<int>(AgeBy::received), "received"},
};

// ---- as the mailbox's owner

void report_expired(const TSMailUserId& id, const string& folder, bool dry_run,
                    const Expired& expired, Report& report) {
    const string path = id.mailfolder(folder);
    report.object({{"address", id.address(true)},
                   {"folder", folder},
                   {"path", path},
                   {"done", !dry_run},
                   {"messages", expired.messages},
                   {"bytes", expired.bytes}});
    if (!expired.counted) {
        report.warn(printable(path) +
                    ": a size record was not corrected; the mailbox needs a recount");
    }
    if (expired.left == 0) return;
    report.error(system_failure(
        fmt::format("{}: {} could not be removed", printable(path), messages_text(expired.left)),
        expired.error));
}

int expire_folders(const TSMailUserId& id, const std::vector<string>& folders,
                   const ExpiryRule& rule, bool all, Report& report) {
    for (const string& folder : folders) {
        try {
            const auto looked_at = [&](std::size_t messages) {
                if (!all) report.progress(messages, 0);
            };
            report_expired(id, folder, rule.dry_run, expire(id, folder, rule, looked_at), report);
        } catch (const Failure& failure) {
            if (!all || failure.code() != kExitNoInput) report.error(failure);
        }
    }
    return kExitOk;
}

// ---- in the parent

// What was removed, for people.
class Shown {
  public:
    Shown(Session& session, bool every_folder) : session_(session), every_folder_(every_folder) {}

    void add(const Json& expired) {
        if (session_.json) return session_.out.object(expired);
        const auto messages = expired.at("messages").get<std::uint64_t>();
        if (messages == 0 && !every_folder_) return;
        session_.out.line(fmt::format(
            "{} {}: {} {} ({})", printable(expired.at("address").get<string>()),
            printable(expired.at("folder").get<string>()),
            expired.at("done").get<bool>() ? "removed" : "would remove", messages_text(messages),
            size_text(expired.at("bytes").get<std::uint64_t>())));
    }

  private:
    Session& session_;
    bool every_folder_;
};

void tell(QuotaDaemon& daemon, const Json& expired) {
    if (!expired.at("done").get<bool>() || expired.at("messages").get<std::uint64_t>() == 0) return;
    daemon.tell(expired.at("path").get<string>(), -expired.at("bytes").get<long long>());
}

ExpiryRule rule_of(const Arguments& arguments) {
    return {age_of("--older", arguments.older),
            static_cast<AgeBy>(word_of(kTimes, "time", arguments.by).number), arguments.flagged,
            arguments.dry_run};
}

int run_expire(Session& session, const Arguments& arguments) {
    for (const string& folder : arguments.folders) check_folder_name(folder);
    const ExpiryRule rule = rule_of(arguments);
    const Mailboxes mailboxes = mailboxes_of(arguments.choice);
    const bool all = mailboxes.all;
    Shown shown(session, !all || session.verbosity > 0);
    QuotaDaemon daemon;
    MailboxJob job;
    job.progress = all ? "expiring messages in mailboxes" : "expiring messages";
    job.jobs = jobs_of(arguments.jobs);
    job.changes_sizes = !arguments.dry_run;
    job.work = [&](const TSMailUserId& id, Report& report) {
        return expire_folders(id, arguments.folders, rule, all, report);
    };
    job.show = [&](const TSMailUserId&, const Json& expired) {
        shown.add(expired);
        tell(daemon, expired);
    };
    return run_on(session, mailboxes, job);
}

void declare_expire(Verb& verb, Arguments& arguments) {
    verb.choice(arguments.choice)
        .repeated("--folder", arguments.folders,
                  "The folder, as Trash, without those below it; may be given several times")
        .required();
    verb.text("--older", arguments.older, "The age beyond which messages go, as 30d, 12h or 8w")
        .required();
    verb.text("--by", arguments.by,
              "Which time counts: when the message was saved in the folder, or received (default: "
              "saved)")
        .one_of(kTimes)
        .flag("--flagged", arguments.flagged, "Flagged messages as well")
        .flag("--dry-run", arguments.dry_run, "Only say how much would be removed")
        .jobs(arguments.jobs);
}

}  // namespace

void add_expire_verb(const VerbGroup& top) {
    top.verb("expire", "Remove old messages from folders", declare_expire, run_expire);
}

}  // namespace Tessaly::tool
