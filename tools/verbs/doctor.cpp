// doctor - says what is wrong in mailboxes, and mends it if asked to.
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>

#include "tools/cli/failure.h"
#include "tools/cli/progress.h"
#include "tools/cli/text.h"
#include "tools/doctor/checks.h"
#include "tools/spool/identity.h"
#include "tools/spool/mailboxes.h"
#include "tools/verbs/verbs.h"
#include "tools/work/mailbox_lock.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct Arguments {
    std::optional<string> address;
    bool all = false;
    bool repair = false;
};

// What came of the checks so far.
struct Outcome {
    std::uint64_t findings = 0;
    std::uint64_t mended = 0;
    int failure = kExitOk;  // the largest exit code of a check that could not be made
};

// Whether it was mended.
bool try_to_mend(const Session& session, const Finding& finding) {
    try {
        finding.mend();
        return true;
    } catch (const Failure& failure) {
        session.error(failure.what());
        return false;
    }
}

void show(Session& session, const Patient& patient, const Check& check, const Finding& finding,
          bool repair, bool mended) {
    if (session.json) {
        session.out.object(Json{{"address", patient.id.address(true)},
                                {"check", check.name},
                                {"path", finding.path},
                                {"what", finding.what},
                                {"why", check.why},
                                {"repair", finding.repair},
                                {"repaired", mended}});
        return;
    }
    Output& out = session.out;
    out.line(out.strong(printable(finding.path)) + ": " + printable(finding.what));
    out.line(fmt::format("  why it matters: {}", check.why));
    if (mended) {
        out.line("  repaired: " + finding.repair);
    } else if (finding.repair.empty()) {
        out.line("  repair: none, please look at it");
    } else {
        out.line((repair ? "  not repaired: " : "  repair: ") + finding.repair);
    }
}

void run_check(Session& session, const Patient& patient, const Check& check, bool repair,
               Outcome& outcome) {
    try {
        for (const Finding& finding : check.look(patient)) {
            const bool mended = repair && finding.mend && try_to_mend(session, finding);
            ++outcome.findings;
            outcome.mended += mended ? 1 : 0;
            show(session, patient, check, finding, repair, mended);
        }
    } catch (const Failure& failure) {
        session.error(fmt::format("{}: the check \"{}\" could not be made: {}",
                                  printable(patient.id.address(true)), check.name, failure.what()));
        outcome.failure = std::max<int>(outcome.failure, failure.code());
    }
}

// Clean is what is clean in the end.
int code_of(const Outcome& outcome) {
    if (outcome.failure != kExitOk) return outcome.failure;
    return outcome.findings == outcome.mended ? kExitOk : kExitNo;
}

int run_doctor(Session& session, const Arguments& arguments) {
    raise_open_file_limit();
    const auto mailboxes = chosen_mailboxes(arguments.address, arguments.all);
    Progress progress(session, "looking at mailboxes", mailboxes.size());
    Outcome outcome;
    std::uint64_t done = 0;
    for (const TSMailUserId& id : mailboxes) {
        const AsOwner owner(session, id);
        const Patient patient = {id, FolderMaker(session.callers_umask)};
        for (const Check& check : all_checks()) {
            run_check(session, patient, check, arguments.repair, outcome);
        }
        progress.advance(++done);
    }
    if (!session.json) {
        session.out.line(fmt::format("{} findings in {} mailboxes, {} repaired", outcome.findings,
                                     done, outcome.mended));
    }
    return code_of(outcome);
}

void declare_doctor(Verb& verb, Arguments& arguments) {
    verb.text("ADDRESS", arguments.address, "The mailbox, as ann@site.test")
        .flag("--all", arguments.all, "All mailboxes")
        .flag("--repair", arguments.repair, "Mend what can be mended without losing mail");
}

}  // namespace

void add_doctor_verb(const VerbGroup& top) {
    top.verb("doctor", "Say what is wrong in a mailbox, and mend it", declare_doctor, run_doctor);
}

}  // namespace Tessaly::tool
