// Removing directory trees. The work is relative to open directories, so that nothing outside a
// tree is touched, whatever other processes do to its names meanwhile.
//
// A symbolic link below the top is removed and never followed. The depth is limited by memory only:
// the stack does not grow with it, and at most some thirty descriptors are open (fewer where the
// process may not open more). A file that cannot be removed stays, a directory with all its
// contents; the rest is removed. Entries that other processes add meanwhile are removed if they are
// seen before their directory is. A branch whose directories are moved elsewhere while the work is
// deep inside it stays (ESTALE).
#ifndef TSMAIL_BASE_TREE_H
#define TSMAIL_BASE_TREE_H

namespace Tessaly::base {

// Removes everything in an open directory. The directory stays; its offset moves. Returns 0, or the
// errno of the first entry that could not be removed, or ENOMEM.
int empty_directory(int dirfd) noexcept;

// Removes the file, link or directory `name` (relative to dirfd, or to the working directory with
// AT_FDCWD), a directory with everything below it. Returns 0, or the errno of the last attempt to
// remove `name` itself: ENOTEMPTY if something below could not be removed.
int remove_tree_at(int dirfd, const char* name) noexcept;

}  // namespace Tessaly::base

#endif
