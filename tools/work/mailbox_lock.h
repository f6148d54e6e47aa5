// Locks all folders of a mailbox at once.
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
    bool has_record;  // whether the folder has a size record
};
using LockedFolders = std::vector<LockedFolder>;

// All folders of the mailbox, each locked exclusively; a folder with several names (by links) once.
// A Failure if a folder cannot be read: none is left out silently.
LockedFolders lock_folders(const TSMailUserId& id);

// Raises this process's limit of open files to the maximum, as each locked folder is an open file.
void raise_open_file_limit();

}  // namespace Tessaly::tool

#endif
