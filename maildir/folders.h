// How a maildir folder is recognised.
#ifndef TSMAIL_MAILDIR_FOLDERS_H
#define TSMAIL_MAILDIR_FOLDERS_H

namespace Tessaly::maildir {

// Whether `dir`, relative to dirfd, holds ".maildirfolder", or else "cur", "new" and "tmp".
bool is_maildir_folder_at(int dirfd, const char* dir);

}  // namespace Tessaly::maildir

#endif
