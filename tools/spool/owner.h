// The user and group whose rights a piece of work gets.
#ifndef TSMAIL_TOOLS_SPOOL_OWNER_H
#define TSMAIL_TOOLS_SPOOL_OWNER_H

#include <sys/types.h>

#include "tools/spool/walk.h"

namespace Tessaly::tool {

// The user and group that a worker becomes. A caller who is not root keeps his own rights.
struct Owner {
    bool change = false;  // whether the worker becomes this user
    uid_t user = 0;
    gid_t group = 0;
    bool operator==(const Owner&) const = default;
};

// The owner of a home or of a directory of lists. The user is the directory's owner. The group is
// the user's group in the system's user database; for a user who is not in it, the directory's
// group, or "nogroup" if that is root's group.
//
// Root works as root only where no other user can change anything: a Failure with kExitCannotCreate
// if the directory is root's, but another user can write to it or to a directory above it.
Owner owner_of(const Place& directory);

// The same for a mailbox. Root's own mailbox is searched first: a Failure with kExitCannotCreate
// names a directory below the home that another user owns or can write to, or a symbolic link that
// is not root's. (Messages are not looked at.)
Owner owner_of_mailbox(const Place& home);

// Becomes the owner irrevocably: sets groups, group and user in this order. Programs that this
// process starts cannot gain rights. A Failure if the system refuses.
void become(const Owner& owner);

}  // namespace Tessaly::tool

#endif
