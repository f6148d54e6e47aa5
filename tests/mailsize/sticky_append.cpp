// A file system that resembles one over a network in one respect: a descriptor that was opened to
// append always appends, whatever fcntl sets. It is preloaded, or linked into a program. (On Linux
// a pwrite through an appending descriptor writes at the end, whatever its offset.)
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>

// The function under both names that headers use.
extern "C" {
[[gnu::visibility("default")]] int sticky_fcntl(int fd, int command, ...) __asm__("fcntl");
[[gnu::visibility("default")]] int sticky_fcntl64(int fd, int command, ...) __asm__("fcntl64");
}

namespace {

int sticky(int fd, int command, std::va_list more) {
    long argument = va_arg(more, long);
    if (command == F_SETFL) argument |= ::syscall(SYS_fcntl, fd, F_GETFL) & O_APPEND;
    return static_cast<int>(::syscall(SYS_fcntl, fd, command, argument));
}

}  // namespace

int sticky_fcntl(int fd, int command, ...) {
    std::va_list more;
    va_start(more, command);
    const int result = sticky(fd, command, more);
    va_end(more);
    return result;
}

int sticky_fcntl64(int fd, int command, ...) {
    std::va_list more;
    va_start(more, command);
    const int result = sticky(fd, command, more);
    va_end(more);
    return result;
}
