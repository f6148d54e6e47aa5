// The size record files of a mailbox: where they are, and what they say.
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
// Its presence says that the sizes are not to be trusted until somebody recounts.
std::string dirty_marker(const TSMailUserId& id);

// Adds, up to the largest number.
void add(Totals& sum, const Totals& more);

// The totals that may be shown: 0 and 0 of a damaged file.
Totals shown(const Totals& totals);
// Reads a size file under its lock; changes nothing, whatever is in it. Nothing if there is no such
// file; damaged if it cannot be opened.
std::optional<Totals> stored_totals(const std::string& path);

}  // namespace Tessaly::tool

#endif
