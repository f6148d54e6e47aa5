// Opens what the operator names outside of the store.
#ifndef TSMAIL_TOOLS_SPOOL_NAMED_PATH_H
#define TSMAIL_TOOLS_SPOOL_NAMED_PATH_H

#include <sys/stat.h>

#include <string>

#include "tools/cli/descriptors.h"

namespace Tessaly::tool {

// Opens a path with the caller's rights. If root calls, only root's symbolic links are followed:
// the path may lead through a directory of a user, who could lead root elsewhere. A Failure if it
// cannot be opened.
Fd open_named(const std::string& path, int flags);

// Makes the last directory of a path if it is missing, mode 0700, and opens it in the same way.
Fd make_named_directory(const std::string& path);

// Opens a regular file in a directory whose owner may change it at any moment. Does not wait, and
// follows no link. Root does not read another user's file under a second name: whoever may not read
// a file may make a hard link to it on some systems. Nothing with errno (EINVAL if it is not a
// regular file, EPERM for such a link).
Fd open_regular(int directory, const char* name);

}  // namespace Tessaly::tool

#endif
