// rename_new - a rename that replaces nothing.
#ifndef TSMAIL_BASE_RENAME_H
#define TSMAIL_BASE_RENAME_H

#include <cstdio>

#include "base/fd.h"

namespace Tessaly::base {

// Renames only if the new name is free. False with errno on failure: EEXIST if the name is taken;
// EINVAL, ENOSYS or EOPNOTSUPP if the file system cannot promise that nothing is replaced.
inline bool rename_new(int from_dir, const char* from, int to_dir, const char* to) {
    return retry([&] { return ::renameat2(from_dir, from, to_dir, to, RENAME_NOREPLACE); }) == 0;
}

}  // namespace Tessaly::base

#endif
