// How a maildir folder is recognised.
#ifndef TSMAIL_MAILDIR_FOLDERS_H
#define TSMAIL_MAILDIR_FOLDERS_H

#include <dirent.h>

namespace Tessaly::maildir {

// Whether `dir`, relative to dirfd, holds ".maildirfolder", or else "cur", "new" and "tmp".
bool is_maildir_folder_at(int dirfd, const char* dir);

// Whether an entry of a directory may be a folder: a directory, or what may turn out to be one; but
// not a sub-directory of a maildir folder, in whatever letter case.
bool may_be_folder(const dirent64& entry);

}  // namespace Tessaly::maildir

#endif
