// The marker beside .maildirsize that says "the totals are not to be trusted, recount".
#ifndef TSMAIL_MAILSIZE_DIRTY_H
#define TSMAIL_MAILSIZE_DIRTY_H

#include <string_view>

namespace Tessaly::mailsize {

// Marks the mailbox that a damaged size file belongs to: the directory that ends with the first
// "/mail/" of its path. True if there is one; a file elsewhere has no mailbox to mark.
bool mark_owner_dirty(std::string_view size_file);

}  // namespace Tessaly::mailsize

#endif
