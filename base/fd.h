// Fd - the one owner of a file descriptor; off_standard - moves it off the standard streams'
// numbers; retry - makes a system call again after an interruption.
#ifndef TSMAIL_BASE_FD_H
#define TSMAIL_BASE_FD_H

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace Tessaly::base {

// Calls until the result is not "-1, interrupted". Do not use it for close: on Linux an interrupted
// close has closed the descriptor, and a second close could hit another thread's.
template <class Call>
auto retry(Call&& call) {
    for (;;) {
        auto result = call();
        if (result != -1 || errno != EINTR) return result;
    }
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
    int release() { return std::exchange(fd_, -1); }

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

// Moves a descriptor off the numbers of the standard streams. A process that has those closed must
// not print into a mailbox's files.
inline Fd off_standard(Fd fd) {
    if (!fd || fd.get() > STDERR_FILENO) return fd;
    return Fd(::fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

}  // namespace Tessaly::base

#endif
