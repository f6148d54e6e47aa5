// The way from the spool's root down to a home, taken without following a link that a user made.
#ifndef TSMAIL_TOOLS_SPOOL_WALK_H
#define TSMAIL_TOOLS_SPOOL_WALK_H

#include <sys/stat.h>
#include <sys/types.h>

#include <string>
#include <string_view>

#include "tools/cli/descriptors.h"

namespace Tessaly::tool {

// A directory that was reached step by step.
struct Place {
    Fd fd;             // O_PATH: to look at it and to go on from it, not to read it
    std::string path;  // for messages
    uid_t owner = 0;
    gid_t group = 0;
    // Every directory and link on the way to this directory, and the directory itself, belongs to
    // root, and only root can write to them: nobody else can change what stands at the path.
    bool only_root_writes = false;
};

// Whether a directory belongs to root and nobody else can write to it.
bool only_root_writes(const struct stat& directory);

// Opens the directory that all mailboxes stand below. The path to it is the operator's and is
// followed as it stands. A Failure if it cannot be opened.
Place spool_root();

// Opens the directory `name` in `from`; `name` is one component. A symbolic link is followed if
// root, or the owner of the directory in which it stands, made it; so is each link on the way of
// its target. Throws a Failure: kExitNoUser if there is no such directory, kExitCannotCreate for a
// link that a user made, else the code of the system's error.
Place step(const Place& from, std::string_view name);

// The same for a whole path below the spool's root, as /var/spool/home/site.test.
Place place_at(const std::string& path);

}  // namespace Tessaly::tool

#endif
