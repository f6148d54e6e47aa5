// Recounts a mailbox: makes its size records match the contents of its folders.
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
    bool is_marked = false;   // still: another recount was requested meanwhile
};

// Counts the messages of every folder, rewrites the records of folders and mailbox, and removes the
// mark that asked for the recount. Deliveries and removals of this program wait meanwhile, so that
// each message is counted once. Entries that other programs append to the records meanwhile are
// kept. A Failure if a folder cannot be read or a record cannot be written; if something was
// written by then, the mailbox stays marked. Calls `done` after each folder with the number of
// counted folders and of all.
MailboxRecount recount(const TSMailUserId& id,
                       const std::function<void(std::size_t, std::size_t)>& done = {});
// What a recount would write; deliveries and removals wait as well. Nothing changes.
MailboxRecount expected_recount(const TSMailUserId& id,
                                const std::function<void(std::size_t, std::size_t)>& done = {});

}  // namespace Tessaly::tool

#endif
