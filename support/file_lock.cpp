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
#include "base/store_file.h"

namespace base = Tessaly::base;
using Tessaly::base::Fd;
using Tessaly::base::off_standard;
using Tessaly::base::retry;

namespace {

struct LockMode {
    const char* name;
    Fd (*open)(const char* path);
    int lock;
    bool empties; /* once the lock is held; O_TRUNC would empty it under a reader */
};

Fd open_to_write(const char* path) { return base::open_for_writing(path, O_WRONLY | O_CREAT); }
Fd open_to_append(const char* path) {
    return base::open_for_update(path, O_RDWR | O_CREAT | O_APPEND);
}

constexpr LockMode kLockModes[] = {
    {"r", base::open_for_reading, LOCK_SH, false},
    {"w", open_to_write, LOCK_EX, true},
    {"a+", open_to_append, LOCK_EX, false},
};

const LockMode* find_mode(const char* name) {
    for (const LockMode& mode : kLockModes) {
        if (std::strcmp(mode.name, name) == 0) return &mode;
    }
    return nullptr;
}

// Waits for the lock, but not while it opens the file. Only a regular file can be emptied.
Fd open_locked(const char* path, const LockMode& mode) {
    Fd fd = off_standard(mode.open(path));
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
    // The close releases the lock after the flush. An explicit unlock would have to come before the
    // flush and would let others in between, and it would take the lock from a child of fork that
    // still has the stream.
    return ::fclose(stream);
}
