// Whose rights a piece of work gets.
#ifndef TSMAIL_TOOLS_SPOOL_OWNER_H
#define TSMAIL_TOOLS_SPOOL_OWNER_H

#include <sys/types.h>

#include "tools/spool/walk.h"

namespace Tessaly::tool {

// Whose rights a worker takes. A caller who is not root works with the rights that he has.
struct Owner {
    bool change = false;  // whether the worker becomes this user
    uid_t user = 0;
    gid_t group = 0;
    bool operator==(const Owner&) const = default;
};

// The owner of a home or of a directory of lists. The user is the directory's. The group is the
// one that the system's user database names for him; for a user whom it does not know it is the
// directory's group, and "nogroup" where that is root's.
//
// Root works as root only where nobody else can change anything: a Failure with kExitCannotCreate
// if the directory is root's, but somebody else can write to it or to a directory above it.
Owner owner_of(const Place& directory);

// The same for a mailbox. Root's own mailbox is looked through before: if a directory below the
// home belongs to somebody else or others can write to it, or a symbolic link in one of them is
// not root's, a Failure with kExitCannotCreate names it. (Messages are not looked at.)
Owner owner_of_mailbox(const Place& home);

// Becomes the owner for good: groups, group, user, in this order, and no program that this process
// starts can gain rights. A Failure if the system refuses.
void become(const Owner& owner);

}  // namespace Tessaly::tool

#endif
