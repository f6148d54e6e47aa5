// The facts about a mailbox that are cheap to read, and those that its folders add.
#ifndef TSMAIL_TOOLS_WORK_USAGE_H
#define TSMAIL_TOOLS_WORK_USAGE_H

#include <tessaly/MailUserId.h>

#include <ctime>

#include "tools/work/size_file.h"

namespace Tessaly::tool {

// What the folders hold.
struct Verified {
    Totals actual;
    std::time_t newest = 0;  // creation time in the newest message's name; 0 if there is none
};

struct MailboxUsage {
    Totals kept;
    std::time_t changed;  // when the size file was last written: by a delivery, a removal or a
                          // recount; 0 if there is none
    bool dirty;           // marked for a recount
    bool warning, exceeded;
};

// Opens one file: the mailbox's size file. A Failure if that cannot be read.
MailboxUsage usage_of(const TSMailUserId& id);

// Counts the messages of all folders. A Failure if one cannot be read.
Verified verify(const TSMailUserId& id);

}  // namespace Tessaly::tool

#endif
