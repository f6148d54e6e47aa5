// doctor - says what is wrong in mailboxes, and repairs it if asked to.
#include <fmt/format.h>

#include <algorithm>

#include "tools/cli/text.h"
#include "tools/doctor/checks.h"
#include "tools/spool/mailbox_job.h"
#include "tools/verbs/verbs.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct Arguments {
    Choice choice;
    bool repair = false;
    std::optional<string> jobs;
};

// ---- the worker's part

// Returns whether the finding was repaired.
bool try_to_repair(const Finding& finding, Report& report) {
    try {
        finding.mend();
        return true;
    } catch (const Failure& failure) {
        report.warn(failure.what());
        return false;
    }
}

void run_check(const Patient& patient, const Check& check, bool repair, Report& report) {
    for (const Finding& finding : check.look(patient)) {
        const bool repaired = repair && finding.mend && try_to_repair(finding, report);
        report.object({{"address", patient.id.address(true)},
                       {"check", check.name},
                       {"path", finding.path},
                       {"what", finding.what},
                       {"why", check.why},
                       {"repair", finding.repair},
                       {"repaired", repaired}});
    }
}

// A check that fails does not prevent the others.
int look_at(const Patient& patient, bool repair, Report& report) {
    for (const Check& check : all_checks()) {
        try {
            run_check(patient, check, repair, report);
        } catch (const Failure& failure) {
            report.error(Failure(
                failure.code(),
                fmt::format("the check \"{}\" could not be made: {}", check.name, failure.what()),
                failure.error()));
        }
    }
    return kExitOk;
}

// ---- what is shown

void show(Session& session, const Json& finding, bool repair) {
    if (session.json) return session.out.object(finding);
    const auto text = [&](const char* field) { return finding.at(field).get<string>(); };
    Output& out = session.out;
    out.line(out.strong(printable(text("path"))) + ": " + printable(text("what")));
    out.line(fmt::format("  why it matters: {}", text("why")));
    if (finding.at("repaired").get<bool>()) {
        out.line("  repaired: " + text("repair"));
    } else if (text("repair").empty()) {
        out.line("  repair: none, please look at it");
    } else {
        out.line((repair ? "  not repaired: " : "  repair: ") + text("repair"));
    }
}

int run_doctor(Session& session, const Arguments& arguments) {
    const Mailboxes mailboxes = mailboxes_of(arguments.choice);
    const FolderMaker maker(session.callers_umask);
    std::uint64_t findings = 0, repaired = 0;
    MailboxJob job;
    job.progress = "looking at mailboxes";
    job.jobs = jobs_of(arguments.jobs);
    job.changes_sizes = arguments.repair;
    job.work = [&](const TSMailUserId& id, Report& report) {
        return look_at({id, maker}, arguments.repair, report);
    };
    job.show = [&](const TSMailUserId&, const Json& finding) {
        ++findings;
        if (finding.at("repaired").get<bool>()) ++repaired;
        show(session, finding, arguments.repair);
    };
    const JobResult result = run_quietly_on(session, mailboxes, job);
    if (!session.json) {
        session.out.line(fmt::format("{} finding{} in {} mailbox{}, {} repaired", findings,
                                     findings == 1 ? "" : "s", mailboxes.ids.size(),
                                     mailboxes.ids.size() == 1 ? "" : "es", repaired));
    }
    if (mailboxes.all) show_left_out(session, result);
    if (result.code != kExitOk) return result.code;
    return findings == repaired ? kExitOk : kExitNo;
}

void declare_doctor(Verb& verb, Arguments& arguments) {
    verb.choice(arguments.choice)
        .flag("--repair", arguments.repair, "Repair what can be repaired without losing mail")
        .jobs(arguments.jobs);
}

}  // namespace

void add_doctor_verb(const VerbGroup& top) {
    top.verb("doctor", "Say what is wrong in a mailbox, and repair it", declare_doctor, run_doctor);
}

}  // namespace Tessaly::tool
