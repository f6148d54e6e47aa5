#include "mailsize/tagging.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "base/dir_reader.h"
#include "base/fd.h"
#include "mailsize/name_size.h"

namespace Tessaly::mailsize {

namespace {

// A rename that replaces nothing. On a file system that cannot promise that, it tests the new name
// first: names are unique, except those of messages that a person put there.
bool rename_new(int from_dir, const char* from, int to_dir, const char* to) {
    const int renamed =
        base::retry([&] { return ::renameat2(from_dir, from, to_dir, to, RENAME_NOREPLACE); });
    if (renamed == 0) return true;
    if (errno != EINVAL) return false;
    if (::faccessat(to_dir, to, F_OK, AT_SYMLINK_NOFOLLOW) == 0) return false;
    return base::retry([&] { return ::renameat(from_dir, from, to_dir, to); }) == 0;
}

// Moves a message that waits in tmp under its old name to its new one.
void move_back(int tmp, const char* old_name, int dir, const char* new_name) {
    if (rename_new(tmp, old_name, dir, new_name)) return;
    // Another process may have tagged it in tmp. Otherwise it goes back to where it was.
    if (errno == ENOENT && rename_new(tmp, new_name, dir, new_name)) return;
    rename_new(tmp, old_name, dir, old_name);
}

void tag_entry(int dir, int tmp, const char* name) {
    struct stat st;
    if (is_tagged(name) || ::fstatat(dir, name, &st, 0) != 0) return;
    NameBuffer buffer;
    const char* const new_name = tagged_name(name, st.st_size, buffer);
    if (new_name == nullptr) return;
    if (tmp >= 0 && rename_new(dir, name, tmp, name)) {
        move_back(tmp, name, dir, new_name);
    } else {
        rename_new(dir, name, dir, new_name);
    }
}

}  // namespace

void tag_entries(int dir, bool is_cur) {
    base::Fd tmp;
    if (is_cur) {
        tmp.reset(
            base::retry([&] { return ::openat(dir, "../tmp", O_PATH | O_DIRECTORY | O_CLOEXEC); }));
    }
    base::DirReader reader(dir);
    while (const dirent64* entry = reader.next_real()) tag_entry(dir, tmp.get(), entry->d_name);
}

}  // namespace Tessaly::mailsize
