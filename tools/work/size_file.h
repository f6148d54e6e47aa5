// The size record files of a mailbox: their paths and their contents.
#ifndef TSMAIL_TOOLS_WORK_SIZE_FILE_H
#define TSMAIL_TOOLS_WORK_SIZE_FILE_H

#include <tessaly/MailUserId.h>

#include <optional>
#include <string>

#include "mailsize/size_file.h"

namespace Tessaly::tool {

using mailsize::Totals;

std::string folder_size_file(const std::string& folder);
std::string mailbox_size_file(const TSMailUserId& id);
// If this file exists, the sizes are not to be trusted until a recount.
std::string dirty_marker(const TSMailUserId& id);

// Adds, but stops at the largest number.
void add(Totals& sum, const Totals& more);

// The totals to show: 0 and 0 for a damaged file.
Totals shown(const Totals& totals);
// Reads a size file under its lock and never changes it. Returns nothing if the file does not
// exist, and damaged totals if it cannot be opened.
std::optional<Totals> stored_totals(const std::string& path);

}  // namespace Tessaly::tool

#endif
