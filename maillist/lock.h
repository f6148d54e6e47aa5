// The lock of a list.
#ifndef TSMAIL_MAILLIST_LOCK_H
#define TSMAIL_MAILLIST_LOCK_H

#include "base/fd.h"

namespace Tessaly::maillist {

// Opens the list's lock file (created if missing, emptied, never removed) and asks for its
// exclusive lock. It does not wait: while another process has the lock, the caller goes on without
// it. The lock ends with the descriptor. Nothing if the file could not be opened. Throws
// std::bad_alloc.
base::Fd mail_list_lock(const char* user, const char* list, unsigned scope);

}  // namespace Tessaly::maillist

#endif
