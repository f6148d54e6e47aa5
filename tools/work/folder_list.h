// Lists a mailbox's folders and reports every directory that it cannot read. (The library's walk
// skips these silently, which is right for showing folders, but not for summing up their sizes.)
#ifndef TSMAIL_TOOLS_WORK_FOLDER_LIST_H
#define TSMAIL_TOOLS_WORK_FOLDER_LIST_H

#include <tessaly/MailUserId.h>

#include <string>
#include <vector>

#include "tools/work/folder_lock.h"

namespace Tessaly::tool {

// The contents of an open directory.
struct Listing {
    bool has_record = false;         // a size record
    bool is_folder = false;          // it holds ".maildirfolder", or all of cur, new and tmp
    std::vector<std::string> below;  // possible folders in byte order, without those
                                     // that are scheduled for deletion
    int error = 0;                   // errno if it could not be read to its end
};
Listing list_directory(int fd);

// Hands out the directories of a mailbox that may be folders, each before those below it.
class FolderQueue {
  public:
    explicit FolderQueue(const Listing& root) { add_below("", root); }

    void add_below(const std::string& folder, const Listing& listing);
    bool empty() const { return names_.empty(); }
    std::string take();

  private:
    std::vector<std::string> names_;  // the next name is at the end
};

// Whether an errno of open() means that there is no directory, not that the directory is
// unreadable.
bool is_no_directory(int error);

struct FolderList {
    struct Unread {
        std::string path;
        int error;
    };
    std::vector<std::string> names;  // a folder before those below it; a folder with several names
                                     // (by links) once
    std::vector<Unread> unread;
};
FolderList list_folders(const TSMailUserId& id);

}  // namespace Tessaly::tool

#endif
