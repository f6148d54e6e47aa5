// Export - hands out the messages of a mailbox.
#ifndef TSMAIL_TOOLS_WORK_EXPORT_H
#define TSMAIL_TOOLS_WORK_EXPORT_H

#include <tessaly/MailUserId.h>

#include <optional>
#include <string>

#include "tools/work/channel.h"
#include "tools/work/report.h"

namespace Tessaly::tool {

enum class ExportFormat : int { maildir, mbox };

struct ExportPlan {
    TSMailUserId id;
    std::optional<std::string> folder;  // only this folder and those below it
    ExportFormat format;
};

// Sends every folder and every message, open for reading, over the channel; the messages of a
// folder in the order of their receipt dates. Without a channel nothing is sent. Reports an object
// for each folder, {"folder", "messages", "bytes", "done"}, an error for what cannot be read, and a
// warning for each note of the process that writes the messages. A message that a reader renames
// meanwhile is sent once.
void export_messages(const ExportPlan& plan, const Channel* target, Report& report);

}  // namespace Tessaly::tool

#endif
