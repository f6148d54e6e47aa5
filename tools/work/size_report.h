// Compares the stored sizes of a mailbox with the contents of its folders.
#ifndef TSMAIL_TOOLS_WORK_SIZE_REPORT_H
#define TSMAIL_TOOLS_WORK_SIZE_REPORT_H

#include <tessaly/MailUserId.h>

#include <optional>
#include <string>

#include "tools/work/report.h"

namespace Tessaly::tool {

// Reports an object for the folder, or for each folder and then one for the mailbox. What cannot be
// read is reported as an error and left out of the sums. A Failure if the folder does not exist.
void report_sizes(const TSMailUserId& id, const std::optional<std::string>& folder, Report& report);

}  // namespace Tessaly::tool

#endif
