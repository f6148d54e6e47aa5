// Reads what `import` is given: a Maildir, an mbox file, or a directory of mbox files.
#ifndef TSMAIL_TOOLS_SPOOL_SOURCE_H
#define TSMAIL_TOOLS_SPOOL_SOURCE_H

#include <string>

#include "tools/work/channel.h"

namespace Tessaly::tool {

// Opens the source at the path and sends it over the channel: each folder, each message, each mbox
// file, open for reading, and what is left out. The folder of an item is the list of its names as
// they stand in the source; "dotted" says that they come from a Maildir++ name. Only regular files
// below the source are opened, and no link is followed. A Failure if the source cannot be read.
void send_source(const std::string& path, const Channel& channel);

}  // namespace Tessaly::tool

#endif
