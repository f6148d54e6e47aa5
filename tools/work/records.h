// Adding to the size records of folders and mailboxes.
#ifndef TSMAIL_TOOLS_WORK_RECORDS_H
#define TSMAIL_TOOLS_WORK_RECORDS_H

#include <string>

#include <tessaly/MailUserId.h>

namespace Tessaly::tool {

// Add `size` bytes in `count` messages to a folder's or a mailbox's record. False if the record was
// not written.
bool add_to_folder_record(const std::string& folder, long long size, long long count) noexcept;
bool add_to_mailbox_record(const TSMailUserId& id, long long size, long long count) noexcept;

// Tries to mark the mailbox: its records are not to be trusted until a recount. Errors are ignored.
void mark_for_recount(const TSMailUserId& id) noexcept;
// Whether the mailbox is marked for a recount.
bool is_marked(const TSMailUserId& id);

}  // namespace Tessaly::tool

#endif
