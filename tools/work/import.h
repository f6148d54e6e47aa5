// Import - brings the messages of a source into a mailbox.
#ifndef TSMAIL_TOOLS_WORK_IMPORT_H
#define TSMAIL_TOOLS_WORK_IMPORT_H

#include <sys/types.h>
#include <tessaly/MailUserId.h>

#include <optional>
#include <string>

#include "tools/work/channel.h"
#include "tools/work/report.h"
#include "tools/work/signals.h"

namespace Tessaly::tool {

struct ImportPlan {
    TSMailUserId id;
    std::optional<std::string> folder;  // the source's folders go into it and below it
    mode_t callers_umask;
    bool dry_run;
};

// Takes the items of a source (spool/source.h) from the channel and stores the messages. Reports an
// object for each folder, {"folder", "messages", "bytes", "present", "done"}, and an error for all
// that is left out.
//
// Messages are written in groups: all of a group are written and flushed, then they appear in the
// folder and are counted, then the folder is flushed. A message's name is made from its date, its
// content and its name in the source; so the same message gets the same name in a second run, which
// finds it in the mailbox and leaves it out. The mailbox is marked for a recount while a group
// appears. A signal ends the work between two groups, or while it waits for the source.
void import_messages(const ImportPlan& plan, const Channel& source, const SignalHold& signals,
                     Report& report);

}  // namespace Tessaly::tool

#endif
