// What a maildir folder consists of, and how it is recognised.
#ifndef TSMAIL_MAILDIR_FOLDERS_H
#define TSMAIL_MAILDIR_FOLDERS_H

namespace Tessaly::maildir {

// The sub-directories of a maildir folder, ended by nullptr.
inline constexpr const char* maildir_sub_dirs[] = {"new", "cur", "tmp", nullptr};
// The same in the order in which a folder is tested, made and emptied: who sees "tmp", which comes
// last, sees a whole folder.
inline constexpr const char* kSubDirsInOrder[] = {maildir_sub_dirs[1], maildir_sub_dirs[0],
                                                  maildir_sub_dirs[2]};

// Whether `dir`, relative to dirfd, holds ".maildirfolder", or else "cur", "new" and "tmp".
bool is_maildir_folder_at(int dirfd, const char* dir);

}  // namespace Tessaly::maildir

#endif
