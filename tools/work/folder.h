// Mailboxes and folders: tests whether they exist, and makes them.
#ifndef TSMAIL_TOOLS_WORK_FOLDER_H
#define TSMAIL_TOOLS_WORK_FOLDER_H

#include <sys/types.h>

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <tessaly/MailUserId.h>

namespace Tessaly::tool {

// Whether the mailbox exists, that is, has its maildir root. A Failure if that cannot be
// determined.
bool mailbox_exists(const TSMailUserId& id);
// Demands that the mailbox exists: a Failure with code kExitNoUser if it does not.
void demand_mailbox(const TSMailUserId& id);

// The path of an existing mail folder; a Failure with code kExitNoInput if it does not exist.
std::string existing_folder(const TSMailUserId& id, const std::string& name);

// Makes roots and folders, and flushes their entries to the disk together: a flush waits for the
// disk, and one for each directory is enough.
class FolderBatch {
  public:
    explicit FolderBatch(mode_t callers_umask) : umask_(callers_umask) {}

    // Makes the missing ones of the mail and preference roots in an existing home. Returns whether
    // any was missing.
    bool make_roots(const TSMailUserId& id);
    // Makes what is missing of a folder and of every folder above it, as walks find a folder only
    // within folders. Returns whether anything was missing.
    bool make_folder(const TSMailUserId& id, const std::string& name);
    // The new entries are on the disk when it returns.
    void flush();

  private:
    void is_new(std::string path);

    mode_t umask_;
    std::set<std::string> unflushed_;
};

// Makes folders under the file mode mask of the program's caller.
class FolderMaker {
  public:
    explicit FolderMaker(mode_t callers_umask) : umask_(callers_umask) {}

    // FolderBatch::make_folder().
    bool make_folder(const TSMailUserId& id, const std::string& name) const;
    // Makes the roots and the system folders.
    void make_mailbox(const TSMailUserId& id) const;

  private:
    mode_t umask_;
};

// The folder names that every mailbox has, "Inbox" first.
std::vector<std::string> system_folders();

}  // namespace Tessaly::tool

#endif
