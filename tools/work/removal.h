// Removes folders, messages and mailboxes, and corrects the size records.
#ifndef TSMAIL_TOOLS_WORK_REMOVAL_H
#define TSMAIL_TOOLS_WORK_REMOVAL_H

#include <tessaly/MailUserId.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/work/amount.h"

namespace Tessaly::tool {

// What was removed. `counted` is false if a size record could not be corrected; the mailbox is then
// marked for a recount.
struct Removal {
    Amount amount;
    bool counted;
};

// The path of an existing folder. A Failure if it does not exist or is a symbolic link.
std::string present_folder(const TSMailUserId& id, const std::string& name);

// schedule_folder() and delete_folder() remove the folder with all folders below it and correct the
// mailbox's size record. Deliveries of this program to any of these wait meanwhile and then find
// them gone. A Failure, with nothing changed, if the folder no longer exists when they have the
// lock.

// Moves the folder to a hidden name, with the day in it, in the mailbox's home, where no walk over
// the mailbox's folders finds it. A Failure, with nothing changed, if it cannot be moved.
Removal schedule_folder(const TSMailUserId& id, const std::string& name);
// A Failure if a part of the folder remains; the mailbox is then marked for a recount.
Removal delete_folder(const TSMailUserId& id, const std::string& name);

// Removes the path and all below it; a Failure if a part of it remains.
void delete_tree(const std::string& path);
// Removes all below the directory; a Failure if a part of it remains.
void clean_directory(const std::string& path);

// A message's name must be one component and not hidden; otherwise a Failure with code kExitData.
void check_message_name(std::string_view name);
// The path of the message in the folder's new or cur; a Failure if it is in neither.
std::string present_message(const TSMailUserId& id, const std::string& folder,
                            const std::string& name);
Amount amount_of_message(const std::string& path);

struct MessageRemoval : Removal {
    std::string path;
};
// Removes the message from the folder and corrects the size records.
MessageRemoval delete_message(const TSMailUserId& id, const std::string& folder,
                              const std::string& name);

}  // namespace Tessaly::tool

#endif
