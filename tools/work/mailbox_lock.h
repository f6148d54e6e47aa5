// Locking all folders of a mailbox at once.
#ifndef TSMAIL_TOOLS_WORK_MAILBOX_LOCK_H
#define TSMAIL_TOOLS_WORK_MAILBOX_LOCK_H

#include <tessaly/MailUserId.h>

#include <string>
#include <vector>

#include "tools/work/folder_lock.h"

namespace Tessaly::tool {

struct LockedFolder {
    std::string name;
    FolderLock lock;
    bool has_record;  // of its size
};
using LockedFolders = std::vector<LockedFolder>;

// All folders of the mailbox, each locked exclusively; one that has several names (by links) once.
// A Failure if one cannot be read: nothing is left out unsaid.
LockedFolders lock_folders(const TSMailUserId& id);

// Lets this process have as many files open as it may: the folders that are locked are open.
void raise_open_file_limit();

}  // namespace Tessaly::tool

#endif
