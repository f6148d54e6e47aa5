#include "fault/calls.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <algorithm>

namespace fault {

namespace {

// The length of a short call: so small that every loop has to go round more than once.
constexpr std::uint64_t kShortBytes = 7;
constexpr std::uint64_t kShortEntries = 300;  // bytes; holds one directory entry of any name

enum Trait : unsigned {
    kNone = 0,
    kUncounted = 1,
    kInterruptible = 2,
    kWrites = 4,
    kWorksAnyway = 8,
    kBytes = 16,    // third argument: bytes
    kVector = 32,   // third argument: pieces of memory
    kEntries = 64,  // third argument: room for directory entries
};

struct Row {
    std::uint64_t number;
    const char* name;
    unsigned traits;
};

// Calls that are not listed count, too; messages show their numbers.
constexpr Row kRows[] = {
    {SYS_read, "read", kInterruptible | kBytes},
    {SYS_pread64, "pread64", kInterruptible | kBytes},
    {SYS_readv, "readv", kInterruptible | kVector},
    {SYS_getdents64, "getdents64", kInterruptible | kEntries},
    {SYS_write, "write", kInterruptible | kWrites | kBytes},
    // A full disk does not refuse it: it overwrites bytes that have their place on the disk.
    {SYS_pwrite64, "pwrite64", kInterruptible | kBytes},
    {SYS_writev, "writev", kInterruptible | kWrites | kVector},
    {SYS_openat, "openat", kInterruptible},
    {SYS_ftruncate, "ftruncate", kInterruptible},
    {SYS_flock, "flock", kInterruptible},
    {SYS_sendto, "sendto", kInterruptible},
    {SYS_connect, "connect", kNone},
    {SYS_wait4, "wait4", kInterruptible},
    {SYS_close, "close", kWorksAnyway},
    {SYS_fsync, "fsync", kNone},
    {SYS_fdatasync, "fdatasync", kNone},
    {SYS_sync, "sync", kNone},
    {SYS_syncfs, "syncfs", kNone},
    {SYS_fallocate, "fallocate", kWrites},
    {SYS_copy_file_range, "copy_file_range", kWrites},
    {SYS_sendfile, "sendfile", kWrites},
    {SYS_lseek, "lseek", kNone},
    {SYS_fcntl, "fcntl", kNone},
    {SYS_dup, "dup", kNone},
    {SYS_dup3, "dup3", kNone},
    {SYS_pipe2, "pipe2", kNone},
    {SYS_socket, "socket", kNone},
    {SYS_setsockopt, "setsockopt", kNone},
    {SYS_newfstatat, "newfstatat", kNone},
    {SYS_fstat, "fstat", kNone},
    {SYS_statx, "statx", kNone},
    {SYS_statfs, "statfs", kNone},
    {SYS_fstatfs, "fstatfs", kNone},
    {SYS_faccessat, "faccessat", kNone},
    {SYS_unlinkat, "unlinkat", kNone},
    {SYS_renameat, "renameat", kNone},
    {SYS_renameat2, "renameat2", kNone},
    {SYS_mkdirat, "mkdirat", kNone},
    {SYS_utimensat, "utimensat", kNone},
    {SYS_fchmod, "fchmod", kNone},
    {SYS_fchown, "fchown", kNone},
    {SYS_chdir, "chdir", kNone},
    {SYS_fchdir, "fchdir", kNone},
    {SYS_getcwd, "getcwd", kNone},
    {SYS_uname, "uname", kNone},
    {SYS_linkat, "linkat", kNone},
    {SYS_symlinkat, "symlinkat", kNone},
    {SYS_readlinkat, "readlinkat", kNone},
    {SYS_fchmodat, "fchmodat", kNone},
    {SYS_fchownat, "fchownat", kNone},
    {SYS_sync_file_range, "sync_file_range", kNone},
    {SYS_close_range, "close_range", kNone},
    {SYS_socketpair, "socketpair", kNone},
    {SYS_sendmsg, "sendmsg", kNone},
    {SYS_recvmsg, "recvmsg", kNone},
    {SYS_recvfrom, "recvfrom", kNone},
    {SYS_ppoll, "ppoll", kNone},
    {SYS_signalfd4, "signalfd4", kNone},
    {SYS_shutdown, "shutdown", kNone},
    {SYS_ioctl, "ioctl", kNone},
    {SYS_prctl, "prctl", kNone},
    {SYS_prlimit64, "prlimit64", kNone},
    {SYS_faccessat2, "faccessat2", kNone},
    {SYS_setgroups, "setgroups", kNone},
    {SYS_setresgid, "setresgid", kNone},
    {SYS_setresuid, "setresuid", kNone},
    {SYS_umask, "umask", kNone},
    {SYS_geteuid, "geteuid", kNone},
    {SYS_getegid, "getegid", kNone},
    {SYS_getppid, "getppid", kNone},
    {SYS_clone, "clone", kNone},
    {SYS_clone3, "clone3", kNone},
    {SYS_execve, "execve", kNone},
#ifdef SYS_stat  // the names on older machines
    {SYS_open, "open", kInterruptible},
    {SYS_stat, "stat", kNone},
    {SYS_lstat, "lstat", kNone},
    {SYS_access, "access", kNone},
    {SYS_link, "link", kNone},
    {SYS_symlink, "symlink", kNone},
    {SYS_readlink, "readlink", kNone},
    {SYS_poll, "poll", kNone},
    {SYS_dup2, "dup2", kNone},
    {SYS_unlink, "unlink", kNone},
    {SYS_rmdir, "rmdir", kNone},
    {SYS_rename, "rename", kNone},
    {SYS_mkdir, "mkdir", kNone},
    {SYS_vfork, "vfork", kNone},
    {SYS_fork, "fork", kNone},
    {SYS_time, "time", kUncounted},
#endif
    {SYS_brk, "brk", kUncounted},
    {SYS_mmap, "mmap", kUncounted},
    {SYS_munmap, "munmap", kUncounted},
    {SYS_mremap, "mremap", kUncounted},
    {SYS_mprotect, "mprotect", kUncounted},
    {SYS_madvise, "madvise", kUncounted},
    {SYS_futex, "futex", kUncounted},
    {SYS_clock_gettime, "clock_gettime", kUncounted},
    {SYS_gettimeofday, "gettimeofday", kUncounted},
    {SYS_getpid, "getpid", kUncounted},
    {SYS_gettid, "gettid", kUncounted},
    {SYS_kill, "kill", kUncounted},
    {SYS_tgkill, "tgkill", kUncounted},
    {SYS_rt_sigaction, "rt_sigaction", kUncounted},
    {SYS_rt_sigprocmask, "rt_sigprocmask", kUncounted},
    {SYS_rt_sigreturn, "rt_sigreturn", kUncounted},
    {SYS_sigaltstack, "sigaltstack", kUncounted},
    {SYS_set_robust_list, "set_robust_list", kUncounted},
    {SYS_getrandom, "getrandom", kUncounted},
    {SYS_exit, "exit", kUncounted},
    {SYS_exit_group, "exit_group", kUncounted},
};

const Row* find(const Call& call) {
    const Row* row = std::find_if(std::begin(kRows), std::end(kRows),
                                  [&](const Row& r) { return r.number == call.number; });
    return row == std::end(kRows) ? nullptr : row;
}

bool has(const Call& call, unsigned trait) {
    const Row* row = find(call);
    return row != nullptr && (row->traits & trait) != 0;
}

}  // namespace

bool counted(const Call& call) { return !has(call, kUncounted); }
bool interruptible(const Call& call) { return has(call, kInterruptible); }
bool writes(const Call& call) { return has(call, kWrites); }
bool works_anyway(const Call& call) { return has(call, kWorksAnyway); }

std::uint64_t shorter_count(const Call& call) {
    const std::uint64_t count = call.args[2];
    if (has(call, kBytes)) return count > 1 ? std::min(count - 1, kShortBytes) : 0;
    if (has(call, kVector)) return count > 1 ? 1 : 0;
    if (has(call, kEntries)) return count > kShortEntries ? kShortEntries : 0;
    return 0;
}

bool leaks_into_programs(const Call& call) {
    if (call.by_child) return false;
    switch (call.number) {
        case SYS_openat:
            return (call.args[2] & O_CLOEXEC) == 0;
        case SYS_socket:
            return (call.args[1] & SOCK_CLOEXEC) == 0;
        case SYS_pipe2:
            return (call.args[1] & O_CLOEXEC) == 0;
        case SYS_dup3:
            return (call.args[2] & O_CLOEXEC) == 0;
        case SYS_fcntl:
            return call.args[1] == F_DUPFD;
        case SYS_dup:
            return true;
#ifdef SYS_stat
        case SYS_open:
            return (call.args[1] & O_CLOEXEC) == 0;
        case SYS_pipe:
        case SYS_dup2:
        case SYS_creat:
            return true;
#endif
        default:
            return false;
    }
}

std::string name(const Call& call) {
    const Row* row = find(call);
    return row != nullptr ? row->name : "call_" + std::to_string(call.number);
}

}  // namespace fault
