#include "tools/work/uncounted.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tools/cli/descriptors.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/work/size_file.h"

namespace Tessaly::tool {

namespace {

constexpr int kToMark = O_WRONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
constexpr mode_t kMarkMode = 0666;

bool same_time(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

std::optional<timespec> time_of(int fd) {
    struct stat st;
    if (::fstat(fd, &st) != 0) return std::nullopt;
    return st.st_mtim;
}

// Sets the file's time to a second ago, so that the time changes when another process marks the
// mailbox, however coarse the file system's clock is.
void make_old(int fd) {
    timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now);
    const timespec times[] = {{0, UTIME_OMIT}, {now.tv_sec - 1, now.tv_nsec}};
    ::futimens(fd, times);
}

bool stands_at(const std::string& path, int fd) {
    struct stat named, open;
    return ::lstat(path.c_str(), &named) == 0 && ::fstat(fd, &open) == 0 &&
           named.st_dev == open.st_dev && named.st_ino == open.st_ino;
}

}  // namespace

Uncounted::Uncounted(const TSMailUserId& id) : path_(dirty_marker(id)) {
    constexpr int kAttempts = 100;  // another process may make or remove the mark in between
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (make() || renew()) return;
    }
    throw system_failure(printable(path_), EAGAIN);
}

// False if there is a mark.
bool Uncounted::make() {
    const Fd fd(
        retry([&] { return ::open(path_.c_str(), kToMark | O_CREAT | O_EXCL, kMarkMode); }));
    if (!fd && errno == EEXIST) return false;
    if (!fd) throw system_failure(printable(path_));
    make_old(fd.get());
    ours_ = time_of(fd.get());
    return true;
}

// Sets the time of another process's mark, so that this process does not remove it. False if it was
// removed by then. Whatever else has the mark's name stays: it is there, which is all that counts.
bool Uncounted::renew() const {
    const Fd fd(retry([&] { return ::open(path_.c_str(), kToMark); }));
    if (!fd) return errno != ENOENT;
    retry([&] { return ::flock(fd.get(), LOCK_EX); });
    const timespec times[] = {{0, UTIME_OMIT}, {0, UTIME_NOW}};
    ::futimens(fd.get(), times);
    return stands_at(path_, fd.get());
}

void Uncounted::counted() {
    if (!ours_) return;
    const Fd fd(retry([&] { return ::open(path_.c_str(), kToMark); }));
    if (!fd) return;
    retry([&] { return ::flock(fd.get(), LOCK_EX); });
    const auto now = time_of(fd.get());
    if (now && same_time(*now, *ours_) && stands_at(path_, fd.get())) ::unlink(path_.c_str());
}

}  // namespace Tessaly::tool
