// Making and emptying directories.
#include <sys/stat.h>
#include <tessaly/support.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "base/fd.h"
#include "base/store_file.h"
#include "base/tree.h"

using Tessaly::base::Fd;
using Tessaly::base::retry;

namespace {

// False with ENOTDIR if something else has the name, such as a dangling link.
bool is_directory(const char* path) {
    struct stat st;
    const bool found = retry([&] { return ::stat(path, &st); }) == 0;
    if (found || errno == ENOENT) errno = ENOTDIR;
    return found && S_ISDIR(st.st_mode);
}

// One mkdir, which succeeds also if another process made the directory.
bool make_one(const char* path, mode_t mode) {
    return retry([=] { return ::mkdir(path, mode); }) == 0 ||
           (errno == EEXIST && is_directory(path));
}

// Makes every missing directory of path in turn. Each slash is set to NUL and back meanwhile.
bool make_all(char* path, mode_t mode) {
    for (char* slash = path + std::strspn(path, "/"); (slash = std::strchr(slash, '/'));) {
        *slash = '\0';
        const bool made = make_one(path, mode);
        *slash = '/';
        if (!made) return false;
        slash += std::strspn(slash, "/");
    }
    return make_one(path, mode);
}

}  // namespace

int create_path(const char* path, mode_t mode) {
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    // In most calls only the last component is missing, or nothing.
    if (make_one(path, mode)) return 0;
    if (errno != ENOENT || *path == '\0') return -1;
    char copy[PATH_MAX];
    const size_t length = std::strlen(path);
    if (length >= sizeof copy) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::memcpy(copy, path, length + 1);
    return make_all(copy, mode) ? 0 : -1;
}

int tsm_clean_dir(const char* path, int /*flags*/) {
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    const Fd dir = Tessaly::base::open_for_emptying(path);
    if (!dir) return -1;
    const int error = Tessaly::base::empty_directory(dir.get());
    if (error == 0) return 0;
    errno = error;
    return -1;
}
