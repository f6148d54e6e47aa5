// For preloading: a file system that resembles one over a network in two respects. It calls itself
// FUSE, and a lock on a directory has no effect.
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

// The functions under every name that the headers use.
extern "C" {
[[gnu::visibility("default")]] int far_fstatfs(int fd, struct statfs* fs) __asm__("fstatfs");
[[gnu::visibility("default")]] int far_fstatfs64(int fd, struct statfs* fs) __asm__("fstatfs64");
[[gnu::visibility("default")]] int far_flock(int fd, int operation) __asm__("flock");
}

int far_fstatfs(int fd, struct statfs* fs) {
    constexpr long kFuse = 0x65735546;
    if (::syscall(SYS_fstatfs, fd, fs) != 0) return -1;
    fs->f_type = kFuse;
    return 0;
}

int far_fstatfs64(int fd, struct statfs* fs) { return far_fstatfs(fd, fs); }

int far_flock(int fd, int operation) {
    struct stat st;
    if (::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) return 0;
    return static_cast<int>(::syscall(SYS_flock, fd, operation));
}
