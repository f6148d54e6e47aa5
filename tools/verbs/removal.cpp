#include "tools/verbs/removal.h"

#include <fmt/format.h>

#include "tools/cli/text.h"
#include "tools/work/quota_daemon.h"

namespace Tessaly::tool {

namespace {

using std::string;

const char* past_of(const string& verb) {
    for (const Deed& deed : {kRemove, kSchedule, kRestore}) {
        if (verb == deed.verb) return deed.done;
    }
    return "";
}

}  // namespace

Amount amount_of(const Json& deed) {
    Amount amount;
    amount.messages = deed.at("messages").get<std::uint64_t>();
    amount.bytes = deed.at("bytes").get<std::uint64_t>();
    amount.others = deed.at("other_files").get<std::uint64_t>();
    return amount;
}

void report_deed(Report& report, const Deed& deed, const string& path, const Amount& amount,
                 bool dry_run) {
    report.object({{"path", path},
                   {"action", deed.verb},
                   {"done", !dry_run},
                   {"messages", amount.messages},
                   {"bytes", amount.bytes},
                   {"other_files", amount.others}});
    if (amount.error == 0) return;
    report.warn(printable(path) + ": cannot be looked through (" + error_text(amount.error) + ')');
}

void report_removal(Report& report, const Deed& deed, const string& path, const Removal& removal) {
    report_deed(report, deed, path, removal.amount, false);
    if (removal.counted) return;
    report.warn(printable(path) + ": a size record was not corrected; the mailbox needs a recount");
}

void show_deed(Session& session, const Json& deed) {
    if (session.json) return session.out.object(deed);
    const auto verb = deed.at("action").get<string>();
    const string what = deed.at("done").get<bool>() ? past_of(verb) : "would " + verb;
    session.out.line(fmt::format("{} {}: {}", what, printable(deed.at("path").get<string>()),
                                 amount_text(amount_of(deed))));
}

void tell_daemon(const string& path, const Json& deed) {
    const Amount gone = amount_of(deed);
    if (!deed.at("done").get<bool>() || gone.messages == 0) return;
    const auto bytes = static_cast<long long>(gone.bytes);
    QuotaDaemon().tell(path, deed.at("action") == kRestore.verb ? bytes : -bytes);
}

void declare_dry_run(Verb& verb, bool& dry_run) {
    verb.flag("--dry-run", dry_run, "Only say what would be done, and how much it is");
}

}  // namespace Tessaly::tool
