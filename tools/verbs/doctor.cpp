// doctor - says what is wrong in mailboxes, and repairs it if asked to.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>

#include "tools/cli/text.h"
#include "tools/doctor/checks.h"
#include "tools/spool/gift.h"
#include "tools/spool/mailbox_job.h"
#include "tools/verbs/doctor_spool.h"
#include "tools/verbs/verbs.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct Arguments {
    Choice choice;
    bool repair = false;
    std::optional<string> jobs;
    SpoolArguments spool;
};

// The field with which a worker asks its parent for a repair. It is not shown.
constexpr char kGive[] = "give";

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
        if (repaired) patient.survey.reset();
        report.object({{"address", patient.id.address(true)},
                       {"check", check.name},
                       {"path", finding.path},
                       {"what", finding.what},
                       {"why", check.why},
                       {"repair", finding.repair},
                       {"repaired", repaired},
                       {kGive, repair ? finding.give : ""}});
    }
}

// Reports each part that cannot be looked at once, however many checks meet it.
class Unseen {
  public:
    explicit Unseen(Report& report) : report_(report) {}
    void note(const Failure& failure) {
        if (known_.insert(failure.what()).second) report_.error(failure);
    }

  private:
    Report& report_;
    std::set<string> known_;
};

// A check that fails does not prevent the others.
int look_at(const TSMailUserId& id, const FolderMaker& maker, bool root, bool repair,
            Report& report) {
    Unseen unseen(report);
    const Patient patient = {id, maker, root,
                             [&](const Failure& failure) { unseen.note(failure); }};
    for (const Check& check : all_checks()) {
        try {
            run_check(patient, check, repair, report);
        } catch (const Failure& failure) {
            unseen.note(Failure(
                failure.code(),
                fmt::format("the check \"{}\" could not be made: {}", check.name, failure.what()),
                failure.error()));
        }
    }
    return kExitOk;
}

// ---- what is shown

// "1 finding", "2 findings".
string counted(std::size_t number, const char* one, const char* many) {
    return fmt::format("{} {}", number, number == 1 ? one : many);
}

// What has or would be done, in parentheses.
string repair_text(const Json& finding, bool repair) {
    const auto text = finding.at("repair").get<string>();
    if (finding.at("repaired").get<bool>()) return "repaired: " + text;
    if (text.empty()) return "no repair, please look at it";
    return (repair ? "not repaired: " : "--repair ") + text;
}

// Shows findings, and counts them.
class Findings {
  public:
    Findings(Session& session, bool repair) : session_(session), repair_(repair) {}

    void add(const Json& finding) {
        Counts& counts = by_check_[finding.at("check").get<string>()];
        ++counts.found;
        if (finding.at("repaired").get<bool>()) ++counts.repaired;
        counts.why = finding.at("why").get<string>();
        show(finding);
    }

    void summarize(std::size_t mailboxes) const {
        if (session_.json) return;
        Counts all;
        for (const auto& [check, counts] : by_check_) {
            all.found += counts.found;
            all.repaired += counts.repaired;
            session_.out.line(fmt::format("{}: {}, {} repaired; {}", check,
                                          counted(counts.found, "finding", "findings"),
                                          counts.repaired, counts.why));
        }
        session_.out.line(fmt::format("{} in {}, {} repaired",
                                      counted(all.found, "finding", "findings"),
                                      counted(mailboxes, "mailbox", "mailboxes"), all.repaired));
    }

    bool all_repaired() const {
        return std::all_of(by_check_.begin(), by_check_.end(),
                           [](const auto& row) { return row.second.found == row.second.repaired; });
    }

  private:
    struct Counts {
        std::size_t found = 0, repaired = 0;
        string why;
    };

    void show(const Json& finding) const {
        if (session_.json) return session_.out.object(finding);
        const auto text = [&](const char* field) {
            return printable(finding.at(field).get<string>());
        };
        Output& out = session_.out;
        out.line(fmt::format("{}: {} ({})", out.strong(text("path")), text("what"),
                             printable(repair_text(finding, repair_))));
    }

    Session& session_;
    const bool repair_;
    std::map<string, Counts> by_check_;
};

// The parent's part of a repair: only root can change a file's owner.
void give(Session& session, Homes& homes, const TSMailUserId& id, Json& finding) {
    const auto path = finding.at(kGive).get<string>();
    finding.erase(kGive);
    if (path.empty()) return;
    try {
        const Owner owner = homes.owner(id);
        give_file(homes.home(id), path, owner);
        finding["repaired"] = true;
    } catch (const Failure& failure) {
        session.warn(failure.what());
    }
}

void show_not_addresses(const Mailboxes& mailboxes, Findings& findings) {
    for (const string& path : mailboxes.not_addresses) {
        findings.add({{"address", nullptr},
                      {"check", "homes"},
                      {"path", path},
                      {"what", "the name is not that of an address"},
                      {"why", "no mailbox can be there, so nothing of it is counted or found"},
                      {"repair", ""},
                      {"repaired", false}});
    }
}

int run_on_mailboxes(Session& session, const Arguments& arguments) {
    const Mailboxes mailboxes = mailboxes_of(arguments.choice);
    const FolderMaker maker(session.callers_umask);
    const bool root = ::geteuid() == 0;
    Findings findings(session, arguments.repair);
    Homes homes;
    MailboxJob job;
    job.progress = "looking at mailboxes";
    job.jobs = jobs_of(arguments.jobs);
    job.changes_sizes = arguments.repair;
    job.work = [&](const TSMailUserId& id, Report& report) {
        return look_at(id, maker, root, arguments.repair, report);
    };
    job.show = [&](const TSMailUserId& id, const Json& object) {
        Json finding = object;
        give(session, homes, id, finding);
        findings.add(finding);
    };
    const JobResult result = run_quietly_on(session, mailboxes, job);
    show_not_addresses(mailboxes, findings);
    findings.summarize(mailboxes.ids.size());
    if (mailboxes.all) show_left_out(session, result);
    if (result.code != kExitOk) return result.code;
    return findings.all_repaired() ? kExitOk : kExitNo;
}

int run_doctor(Session& session, const Arguments& arguments) {
    if (!arguments.repair) session.out.end_with_reader();
    if (is_about_spool(arguments.spool)) {
        const Choice& choice = arguments.choice;
        if (choice.address || choice.all || choice.domain || arguments.repair) {
            throw Failure(kExitUsage, "--spool is about no mailbox: give neither one nor --repair");
        }
        return run_doctor_spool(session, arguments.spool);
    }
    const auto work = [&] { return run_on_mailboxes(session, arguments); };
    return arguments.repair ? work() : run_reader(work);
}

void declare_doctor(Verb& verb, Arguments& arguments) {
    verb.choice(arguments.choice)
        .flag("--repair", arguments.repair, "Repair what can be repaired without losing mail")
        .jobs(arguments.jobs);
    declare_doctor_spool(verb, arguments.spool);
}

}  // namespace

void add_doctor_verb(const VerbGroup& top) {
    top.verb("doctor", "Say what is wrong in a mailbox, and repair it", declare_doctor, run_doctor);
}

}  // namespace Tessaly::tool
