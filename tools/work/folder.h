// Mailboxes and folders: whether they are there, and making them.
#ifndef TSMAIL_TOOLS_WORK_FOLDER_H
#define TSMAIL_TOOLS_WORK_FOLDER_H

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

#include <tessaly/MailUserId.h>

namespace Tessaly::tool {

// Whether the mailbox was ever created: its maildir root exists. A Failure if that cannot be told.
bool mailbox_exists(const TSMailUserId& id);
// The same as a demand: a Failure with code kExitNoUser if not.
void demand_mailbox(const TSMailUserId& id);

// The path of a mail folder that is there; a Failure with code kExitNoInput if there is none.
std::string existing_folder(const TSMailUserId& id, const std::string& name);

// Makes folders under the file mode mask of the program's caller.
class FolderMaker {
  public:
    explicit FolderMaker(mode_t callers_umask) : umask_(callers_umask) {}

    // Makes the mail and preference roots in a home that is there, where missing. Whether anything
    // was.
    bool make_roots(const TSMailUserId& id) const;
    // Makes a folder where it or a part of it is missing, and every folder above it: only a folder
    // within folders is found again. Whether anything was missing. What was made is on the disk
    // when it returns.
    bool make_folder(const TSMailUserId& id, const std::string& name) const;
    // The roots and the system folders.
    void make_mailbox(const TSMailUserId& id) const;

  private:
    mode_t umask_;
};

// The folder names that every mailbox has, "Inbox" first.
std::vector<std::string> system_folders();

}  // namespace Tessaly::tool

#endif
