#include "base/store_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <ctime>
#include <string>
#include <utility>

#include "base/guard.h"
#include "base/text.h"

namespace Tessaly::base {

namespace {

constexpr int kCommonFlags = O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
constexpr mode_t kMode = 0666;
constexpr int kMostLinks = 40;  // as many as the kernel follows

// How often, and for how long each time, an open waits while another process holds a lease on the
// file. A file server gives its lease back within this second. The owner of a file could let a
// lease stall each open for as long as the kernel allows (45 seconds).
constexpr int kLeaseAttempts = 100;
constexpr timespec kLeasePause = {0, 10'000'000};

Fd open_at(int dir, const char* path, int flags) {
    for (int attempt = 0;; ++attempt) {
        Fd fd(retry([=] { return ::openat(dir, path, flags | kCommonFlags, kMode); }));
        if (fd || errno != EWOULDBLOCK || attempt == kLeaseAttempts) return fd;
        ::nanosleep(&kLeasePause, nullptr);
    }
}

Fd find_at(int dir, const char* path, int flags) {
    return Fd(retry([=] { return ::openat(dir, path, O_PATH | O_CLOEXEC | flags); }));
}

// Nothing with errno if the descriptor's file is not a regular one. (A file whose fstat fails is
// accepted; the reading is bounded in any case.)
Fd only_regular(Fd fd) {
    struct stat st;
    if (!fd) return {};
    if (::fstat(fd.get(), &st) != 0 || S_ISREG(st.st_mode)) return fd;
    errno = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
    return {};
}

// Opens the found file for reading; by its path if there is no /proc.
Fd open_found(const Fd& found, const char* path) {
    char self[64];
    BoundedText(self, sizeof self) << "/proc/self/fd/" << found.get() << '\0';
    Fd fd = open_at(AT_FDCWD, self, O_RDONLY);
    return fd || errno != ENOENT ? std::move(fd) : open_at(AT_FDCWD, path, O_RDONLY);
}

// Looks at what a link leads to before it is opened: opening a device may do something.
Fd read_through_link(const char* path) {
    const Fd found = only_regular(find_at(AT_FDCWD, path, 0));
    return found ? only_regular(open_found(found, path)) : Fd();
}

bool is_trusted(uid_t owner) { return owner == 0 || owner == ::geteuid(); }

// Replaces the name of a trusted link by the link's text. The name of what is not a link (any more)
// stays. False with errno, EACCES for another person's link.
bool follow(int dir, std::string& name) {
    const Fd link = find_at(dir, name.c_str(), O_NOFOLLOW);
    struct stat st;
    if (!link || ::fstat(link.get(), &st) != 0) return false;
    if (!S_ISLNK(st.st_mode)) return true;
    if (!is_trusted(st.st_uid)) {
        errno = EACCES;
        return false;
    }
    name.resize(PATH_MAX);
    const ssize_t length = ::readlinkat(link.get(), "", name.data(), name.size());
    name.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return length > 0;
}

// Cuts a path behind its last '/' and returns the directory in front of it.
std::string cut_directory(std::string& path) {
    path.resize(path.find_last_not_of('/') + 1);
    const std::size_t name = path.rfind('/') + 1;
    std::string directory = name == 0 ? "." : path.substr(0, name);
    path.erase(0, name);
    return directory;
}

// Follows the links in the place of a path's last component one by one, each only if it is trusted.
// The kernel follows none of them: another link may have taken the place meanwhile.
Fd open_through_links(std::string path, int flags) {
    Fd dir;
    int error = ELOOP;
    if (path.size() >= PATH_MAX) {
        errno = ENAMETOOLONG;
        return {};
    }
    for (int links = 0; links < kMostLinks; ++links) {
        const std::string directory = cut_directory(path);
        dir = find_at(dir ? dir.get() : AT_FDCWD, directory.c_str(), O_DIRECTORY);
        if (!dir) return {};
        Fd fd = open_at(dir.get(), path.c_str(), flags | O_NOFOLLOW);
        error = errno;
        if (fd || (error != ELOOP && error != ENOTDIR)) return fd;
        if (!follow(dir.get(), path)) return {};
    }
    errno = error;
    return {};
}

Fd open_unless_strangers_link(const char* path, int flags) {
    Fd fd = open_at(AT_FDCWD, path, flags | O_NOFOLLOW);
    if (fd || errno != ELOOP) return fd;
    return no_throw(Fd(), [=] { return open_through_links(path, flags); });
}

}  // namespace

Fd open_for_reading(const char* path) {
    Fd fd = open_at(AT_FDCWD, path, O_RDONLY | O_NOFOLLOW);
    return fd || errno != ELOOP ? only_regular(std::move(fd)) : read_through_link(path);
}

Fd open_for_writing(const char* path, int flags) { return open_unless_strangers_link(path, flags); }

Fd open_for_update(const char* path, int flags) {
    return only_regular(open_unless_strangers_link(path, flags));
}

Fd open_for_emptying(const char* path) {
    // The kernel follows a link with a slash behind it, and says of a link only ENOTDIR.
    return no_throw(Fd(), [=] { return open_through_links(path, O_RDONLY | O_DIRECTORY); });
}

}  // namespace Tessaly::base
