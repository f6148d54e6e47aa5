// rename_new, move_new - renames that replace nothing.
#ifndef TSMAIL_BASE_RENAME_H
#define TSMAIL_BASE_RENAME_H

#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "base/fd.h"

namespace Tessaly::base {

// Renames only if the new name is free. False with errno on failure: EEXIST if the name is taken;
// EINVAL, ENOSYS or EOPNOTSUPP if the file system cannot promise that nothing is replaced.
inline bool rename_new(int from_dir, const char* from, int to_dir, const char* to) {
    return retry([&] { return ::renameat2(from_dir, from, to_dir, to, RENAME_NOREPLACE); }) == 0;
}

// The same on any file system, with a moment in which the file has both names where it cannot do
// better.
inline bool move_new(int from_dir, const char* from, int to_dir, const char* to) {
    if (rename_new(from_dir, from, to_dir, to)) return true;
    if (errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP) return false;
    if (::linkat(from_dir, from, to_dir, to, 0) != 0) return false;
    ::unlinkat(from_dir, from, 0);
    return true;
}

}  // namespace Tessaly::base

#endif
