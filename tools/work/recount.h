// Recounting a mailbox: its size records are made what its folders hold.
#ifndef TSMAIL_TOOLS_WORK_RECOUNT_H
#define TSMAIL_TOOLS_WORK_RECOUNT_H

#include <tessaly/MailUserId.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "tools/work/size_file.h"

namespace Tessaly::tool {

// A record before and after.
struct Recounted {
    std::string name;  // of the folder; "" for the mailbox itself
    Totals before;
    Totals after;
    bool changed() const { return before != after; }
};

struct MailboxRecount {
    Recounted mailbox;
    std::vector<Recounted> folders;
    bool was_marked = false;  // for a recount
    bool is_marked = false;   // still: somebody asked for another one meanwhile
};

// Counts the messages of every folder, rewrites the records of folders and mailbox, and removes the
// mark that asked for it. Deliveries and removals of this program wait meanwhile, so that each
// message is counted once; what others append to the records meanwhile stays in them. A Failure if
// a folder cannot be read or a record cannot be written; where something was written by then, the
// mailbox stays marked.
// done is called after each folder with how many of how many were counted.
MailboxRecount recount(const TSMailUserId& id,
                       const std::function<void(std::size_t, std::size_t)>& done = {});

}  // namespace Tessaly::tool

#endif
