// The output of the verbs that remove something.
#ifndef TSMAIL_TOOLS_VERBS_REMOVAL_H
#define TSMAIL_TOOLS_VERBS_REMOVAL_H

#include <string>

#include "tools/cli/grammar.h"
#include "tools/work/removal.h"
#include "tools/work/report.h"

namespace Tessaly::tool {

struct Deed {
    const char* verb;  // for "would ..."
    const char* done;
};
constexpr Deed kRemove = {"remove", "removed"};
constexpr Deed kSchedule = {"schedule", "scheduled"};
constexpr Deed kRestore = {"restore", "restored"};

// In the worker: reports what was removed, or would be.
void report_deed(Report& report, const Deed& deed, const std::string& path, const Amount& amount,
                 bool dry_run);
// The same, with a warning if a size record could not be corrected.
void report_removal(Report& report, const Deed& deed, const std::string& path,
                    const Removal& removal);

// In the parent: shows what the worker reported.
void show_deed(Session& session, const Json& deed);
Amount amount_of(const Json& deed);
// Tells the quota daemon. Comes after everything else, as the daemon may be slow. `path` is the
// folder or mailbox that became smaller, or larger by kRestore.
void tell_daemon(const std::string& path, const Json& deed);

void declare_dry_run(Verb& verb, bool& dry_run);

}  // namespace Tessaly::tool

#endif
