// Walks from the spool's root down to a home without following a link that a user made.
#ifndef TSMAIL_TOOLS_SPOOL_WALK_H
#define TSMAIL_TOOLS_SPOOL_WALK_H

#include <sys/stat.h>
#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

#include "tools/cli/descriptors.h"

namespace Tessaly::tool {

// A directory that was reached step by step.
struct Place {
    Fd fd;             // O_PATH: to inspect it and to go on from it, not to read it
    std::string path;  // for messages
    uid_t owner = 0;
    gid_t group = 0;
    // The directory and every directory and link on the way to it belong to root, and only root can
    // write to them: no other user can change what the path leads to.
    bool only_root_writes = false;
};

// Whether a directory belongs to root and only root can write to it.
bool only_root_writes(const struct stat& directory);

// Opens the directory that contains all mailboxes. The operator controls the path to it, so every
// link in that path is followed. A Failure if it cannot be opened.
Place spool_root();

// Opens the directory `name` in `from`; `name` is one component. A symbolic link is followed only
// if it belongs to root or to the owner of the directory that contains it; the same holds for each
// link on the way to its target. Throws a Failure: kExitNoUser if there is no such directory,
// kExitCannotCreate for a link of any other user, else the code of the system's error.
Place step(const Place& from, std::string_view name);

// The same for a whole path below the spool's root, as /var/spool/home/site.test.
Place place_at(const std::string& path);

// The names in a directory, in byte order. A Failure if it cannot be read.
std::vector<std::string> names_in(const Place& directory);

}  // namespace Tessaly::tool

#endif
