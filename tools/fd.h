// Fd - the one owner of a file descriptor; retry - a system call again after an interruption;
// rename_new - a rename that replaces nothing.
#ifndef TSMAIL_TOOLS_FD_H
#define TSMAIL_TOOLS_FD_H

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

namespace Tessaly::tool {

// Not for close: the descriptor is gone then.
template <class Call>
auto retry(Call&& call) {
    for (;;) {
        auto result = call();
        if (result != -1 || errno != EINTR) return result;
    }
}

// False with errno if it cannot be: EEXIST if the name is taken; EINVAL, ENOSYS or EOPNOTSUPP if
// the file system cannot promise that it replaces nothing.
inline bool rename_new(int from_dir, const char* from, int to_dir, const char* to) {
    return retry([&] { return ::renameat2(from_dir, from, to_dir, to, RENAME_NOREPLACE); }) == 0;
}

class Fd {
  public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        if (this != &other) reset(std::exchange(other.fd_, -1));
        return *this;
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

    // Closes without disturbing errno, so that an owner may go out of scope on an error path.
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            const int saved = errno;
            ::close(fd_);
            errno = saved;
        }
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

}  // namespace Tessaly::tool

#endif
