// Listing a mailbox's folders so that nothing is left out unsaid. (The library's walk passes over
// what it cannot read, which is right for who shows folders; who sums them up has to know.)
#ifndef TSMAIL_TOOLS_WORK_FOLDER_LIST_H
#define TSMAIL_TOOLS_WORK_FOLDER_LIST_H

#include <tessaly/MailUserId.h>

#include <string>
#include <vector>

#include "tools/work/folder_lock.h"

namespace Tessaly::tool {

// What an open directory looks like from within.
struct Listing {
    bool has_record = false;         // of its size
    bool is_folder = false;          // it holds ".maildirfolder", or all of cur, new and tmp
    std::vector<std::string> below;  // directories that may be folders, in byte order; not those
                                     // that are scheduled for deletion
    int error = 0;                   // why it could not be read to its end
};
Listing list_directory(int fd);

// Hands out the directories of a mailbox that may be folders, one above those below it.
class FolderQueue {
  public:
    explicit FolderQueue(const Listing& root) { add_below("", root); }

    void add_below(const std::string& folder, const Listing& listing);
    bool empty() const { return names_.empty(); }
    std::string take();

  private:
    std::vector<std::string> names_;  // the next one at the end
};

// Whether an errno of open says that there is no directory, and not that it could not be looked at.
bool is_no_directory(int error);

struct FolderList {
    struct Unread {
        std::string path;
        int error;
    };
    std::vector<std::string> names;  // a folder before those below it; one that has several names
                                     // (by links) once
    std::vector<Unread> unread;
};
FolderList list_folders(const TSMailUserId& id);

}  // namespace Tessaly::tool

#endif
