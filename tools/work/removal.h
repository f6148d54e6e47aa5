// Removing folders, messages and mailboxes, with the sizes that others keep of them.
#ifndef TSMAIL_TOOLS_WORK_REMOVAL_H
#define TSMAIL_TOOLS_WORK_REMOVAL_H

#include <tessaly/MailUserId.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/work/amount.h"

namespace Tessaly::tool {

// What was removed. Not counted: the mailbox's size record could not be corrected; it is marked for
// a recount then.
struct Removal {
    Amount amount;
    bool counted;
};

// The path of a folder that is there and no symbolic link; a Failure if it is not.
std::string present_folder(const TSMailUserId& id, const std::string& name);

// Both take the folder with all folders below it and correct the mailbox's size record. Deliveries
// of this program to any of these wait meanwhile, and find them gone. A Failure, with nothing
// changed, if the folder is not there any more when they have the lock.
// The folder gets a hidden name in the mailbox's home, with the day in it: there no walk over the
// mailbox's folders finds it. A Failure if it could not be moved; nothing has changed then.
Removal schedule_folder(const TSMailUserId& id, const std::string& name);
// A Failure if something of it stayed; the mailbox is marked for a recount then.
Removal delete_folder(const TSMailUserId& id, const std::string& name);

// What was scheduled in the mailbox's home and in its maildir root; with `older`, what was
// scheduled longer ago than that: a change of its directory counts as a new schedule.
std::vector<std::string> scheduled_in(const TSMailUserId& id,
                                      std::optional<std::chrono::seconds> older = {});
// Removes the path and all below it; a Failure if something of it stayed.
void delete_tree(const std::string& path);
// Removes all below the directory; a Failure if something of it stayed.
void clean_directory(const std::string& path);

// A message's name is one component and not hidden; what is not is a Failure with code kExitData.
void check_message_name(std::string_view name);
// The path of the message, in the folder's new or cur; a Failure if it is not there.
std::string present_message(const TSMailUserId& id, const std::string& folder,
                            const std::string& name);
Amount amount_of_message(const std::string& path);

struct MessageRemoval : Removal {
    std::string path;
};
// Removes it from the folder; sizes as above.
MessageRemoval delete_message(const TSMailUserId& id, const std::string& folder,
                              const std::string& name);

}  // namespace Tessaly::tool

#endif
