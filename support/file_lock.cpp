// Locked streams: flock on the file itself, so that the lock also works where flock is emulated
// over a network file system (there a shared lock needs a readable, an exclusive one a writable
// file).
#include <fcntl.h>
#include <sys/file.h>
#include <tessaly/support.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/fd.h"

using Tessaly::base::Fd;
using Tessaly::base::off_standard;
using Tessaly::base::retry;

namespace {

struct LockMode {
    const char* name;
    int open_flags;
    int lock;
    bool empties; /* once the lock is held; O_TRUNC would empty it under a reader */
};

constexpr LockMode kLockModes[] = {
    {"r", O_RDONLY, LOCK_SH, false},
    {"w", O_WRONLY | O_CREAT, LOCK_EX, true},
    {"a+", O_RDWR | O_CREAT | O_APPEND, LOCK_EX, false},
};

const LockMode* find_mode(const char* name) {
    for (const LockMode& mode : kLockModes) {
        if (std::strcmp(mode.name, name) == 0) return &mode;
    }
    return nullptr;
}

// Waits for the lock, but not in the opening: a FIFO in the file's place would stop every caller.
Fd open_locked(const char* path, const LockMode& mode) {
    const int flags = mode.open_flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    Fd fd = off_standard(Fd(retry([&] { return ::open(path, flags, 0666); })));
    if (!fd) return {};
    if (retry([&] { return ::flock(fd.get(), mode.lock); }) != 0) return {};
    if (mode.empties && retry([&] { return ::ftruncate(fd.get(), 0); }) != 0) return {};
    return fd;
}

}  // namespace

FILE* open_and_lock_file(const char* path, const char* mode) {
    const LockMode* wanted = path == nullptr || mode == nullptr ? nullptr : find_mode(mode);
    if (wanted == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    Fd fd = open_locked(path, *wanted);
    if (!fd) return nullptr;
    FILE* stream = ::fdopen(fd.get(), wanted->name);
    if (stream != nullptr) fd.release();
    return stream;
}

int close_and_unlock_file(FILE* stream) {
    if (stream == nullptr) {
        errno = EINVAL;
        return EOF;
    }
    // The close releases the lock, and only after the flush: an unlock before it would let others
    // in between. Where a child of fork still holds the stream, the lock is its too.
    return ::fclose(stream);
}
