// Deletion at once: whole trees, maildir folders, the messages of a folder.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <cerrno>

#include "base/dir_reader.h"
#include "base/fd.h"
#include "base/store_names.h"
#include "base/tree.h"

namespace {

using Tessaly::base::Fd;
using Tessaly::base::retry;
using Tessaly::names::kSubDirs;

bool stat_folder(const char* path, struct stat& st) {
    return path != nullptr && *path != '\0' && retry([&] { return ::stat(path, &st); }) == 0;
}

// A folder's directory, to work below; a link to it is followed.
Fd open_folder(const char* path) {
    return Fd(retry([=] { return ::open(path, O_PATH | O_DIRECTORY | O_CLOEXEC); }));
}

// Removes the files of a sub-directory; a directory in it stays. False if the sub-directory cannot
// be opened. A link in its place may lead to anybody's files and counts as one that cannot be
// opened.
bool empty_sub_dir(int folder, const char* name) {
    constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    const Fd dir(retry([=] { return ::openat(folder, name, kFlags); }));
    if (!dir) return false;
    Tessaly::base::DirReader reader(dir.get());
    while (const dirent64* entry = reader.next_real()) {
        if (entry->d_type == DT_DIR) continue;
        retry([&] { return ::unlinkat(dir.get(), entry->d_name, 0); });
    }
    return true;
}

void remove_cache_file(int folder) {
    retry([=] { return ::unlinkat(folder, Tessaly::names::kScanCache.data(), 0); });
}

}  // namespace

int tsm_delete_path(const char* path) {
    return path == nullptr ? EINVAL : Tessaly::base::remove_tree_at(AT_FDCWD, path);
}

int tsm_delete_maildir(const char* path) {
    struct stat st;
    if (!stat_folder(path, st)) return -1;
    if (S_ISDIR(st.st_mode)) {
        if (const Fd folder = open_folder(path)) {
            for (const char* name : kSubDirs) {
                if (!empty_sub_dir(folder.get(), name)) continue;
                retry([&] { return ::unlinkat(folder.get(), name, AT_REMOVEDIR); });
            }
        }
    }
    return tsm_delete_path(path);
}

int tsm_clean_maildir(const char* path) {
    struct stat st;
    if (!stat_folder(path, st) || !S_ISDIR(st.st_mode)) return -1;
    if (const Fd folder = open_folder(path)) {
        for (const char* name : kSubDirs) empty_sub_dir(folder.get(), name);
        remove_cache_file(folder.get());
    }
    return 0;
}
