// Moving a file over another, across file systems too.
#include <fcntl.h>
#include <sys/stat.h>
#include <tessaly/support.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/fd.h"
#include "base/io.h"
#include "base/text.h"

using Tessaly::base::BoundedText;
using Tessaly::base::Fd;
using Tessaly::base::retry;

namespace {

// The directory part of a path, with its final slash; empty for a bare name.
std::string_view directory_of(std::string_view path) { return path.substr(0, path.rfind('/') + 1); }

bool flush(int fd) {
    return retry([=] { return ::fsync(fd); }) == 0;
}

// A temporary file beside another one. It is removed unless it was renamed over that one.
class TemporaryBeside {
  public:
    explicit TemporaryBeside(const char* target) {
        BoundedText name(name_, sizeof name_);
        name << directory_of(target) << ".tsm_movefile.XXXXXX";
        name.c_str();
        errno = ENAMETOOLONG;
        if (!name.cut()) fd_ = Fd(::mkostemp(name_, O_CLOEXEC));
    }
    TemporaryBeside(const TemporaryBeside&) = delete;
    TemporaryBeside& operator=(const TemporaryBeside&) = delete;
    ~TemporaryBeside() {
        const int error = errno;
        if (fd_) ::unlink(name_);
        errno = error;
    }

    explicit operator bool() const { return static_cast<bool>(fd_); }
    int fd() const { return fd_.get(); }
    bool rename_over(const char* target) {
        if (retry([&] { return ::rename(name_, target); }) != 0) return false;
        fd_.reset();
        return true;
    }

  private:
    char name_[PATH_MAX];
    Fd fd_;
};

// Only regular files are copied; anything else stays, with the EXDEV of the rename.
Fd open_regular(const char* path, struct stat& st) {
    constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;
    Fd fd(retry([=] { return ::open(path, kFlags); }));
    const bool special = !fd && (errno == ELOOP || errno == ENXIO);  // a link, a socket
    if (fd && ::fstat(fd.get(), &st) != 0) return {};
    if (fd && S_ISREG(st.st_mode)) return fd;
    if (fd || special) errno = EXDEV;
    return {};
}

bool copy_bytes(int from, int to) {
    char buffer[32768];
    for (;;) {
        const ssize_t n = retry([&] { return ::read(from, buffer, sizeof buffer); });
        if (n <= 0) return n == 0;
        if (!Tessaly::base::write_all(to, {buffer, static_cast<std::size_t>(n)})) return false;
    }
}

// The owner first, because a change of the owner clears set-user-id bits. If the owner cannot be
// kept, those bits are not kept either.
bool copy_attributes(const struct stat& st, int to) {
    const bool owned = ::fchown(to, st.st_uid, st.st_gid) == 0;
    const mode_t kept = owned ? 07777 : 0777;
    const struct timespec times[2] = {st.st_atim, st.st_mtim};
    return ::fchmod(to, st.st_mode & kept) == 0 && ::futimens(to, times) == 0;
}

// Makes a rename in a file's directory last.
bool flush_directory_of(const char* path) {
    char name[PATH_MAX];
    BoundedText text(name, sizeof name);
    text << directory_of(path) << '.';
    const Fd dir(retry([&] { return ::open(text.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    return dir && flush(dir.get());
}

bool move_by_copy(const char* from, const char* to) {
    struct stat st;
    const Fd source = open_regular(from, st);
    if (!source) return false;
    TemporaryBeside copy(to);
    return copy && copy_bytes(source.get(), copy.fd()) && copy_attributes(st, copy.fd()) &&
           flush(copy.fd()) && copy.rename_over(to) && flush_directory_of(to) &&
           ::unlink(from) == 0;
}

}  // namespace

int tsm_movefile(const char* from, const char* to) {
    if (from == nullptr || to == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (retry([=] { return ::rename(from, to); }) == 0) return 0;
    return errno == EXDEV && move_by_copy(from, to) ? 0 : -1;
}
