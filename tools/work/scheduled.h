// Folders that wait for a sweep: where they were, their removal, and the way back.
#ifndef TSMAIL_TOOLS_WORK_SCHEDULED_H
#define TSMAIL_TOOLS_WORK_SCHEDULED_H

#include <tessaly/MailUserId.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "tools/work/folder.h"
#include "tools/work/removal.h"

namespace Tessaly::tool {

// Writes into a folder, which is open, the name under which it can be restored. A Failure, with
// nothing written, if that is not possible.
void record_place(int folder, const std::string& name);
void remove_record(int folder) noexcept;

// The scheduled folders in the mailbox's home and in its maildir root; with `older`, those
// scheduled longer ago than that. A change of the directory's status counts as a new schedule.
std::vector<std::string> scheduled_in(const TSMailUserId& id,
                                      std::optional<std::chrono::seconds> older = {});
// Removes what is scheduled; a Failure if a part of it remains. A folder that `restore` could bring
// back gets another name first, so that it cannot bring back a part of it.
void sweep_path(const std::string& path);

// The scheduled folder that was last called `folder`: the youngest one whose record says so, or,
// for one without a record, whose hidden name does. A Failure with kExitNoInput if there is none.
std::string scheduled_folder(const TSMailUserId& id, const std::string& folder);

// What is in a scheduled folder, without its record.
Amount amount_of_scheduled(const std::string& path);
// Moves a scheduled folder to `folder`, makes missing folders above that, and adds its messages to
// the mailbox's size record. A Failure, with nothing changed, if there is a folder that is not
// empty; an empty one is replaced.
Removal restore_folder(const TSMailUserId& id, const std::string& path, const std::string& folder,
                       const FolderMaker& maker);
// The same Failure, without a change.
void demand_free_place(const TSMailUserId& id, const std::string& folder);

}  // namespace Tessaly::tool

#endif
