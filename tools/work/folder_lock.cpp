#include "tools/work/folder_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "tools/cli/failure.h"
#include "tools/cli/text.h"

namespace Tessaly::tool {

namespace {

using std::string;

constexpr int kShortestPause = 1, kLongestPause = 20;  // milliseconds
constexpr int kToRead = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

// False if another has it.
bool try_flock(int fd, int operation) {
    if (retry([&] { return ::flock(fd, operation | LOCK_NB); }) == 0) return true;
    if (errno != EWOULDBLOCK) throw system_failure("locking a folder");
    return false;
}

// Shared locks that follow on each other would keep out the one who waits for the exclusive lock
// for ever, so there is a gate in front: a lock on the folder's tmp. It is held exclusively while
// the exclusive lock is waited for, and shared for the moment in which a shared one is tried.
class Gate {
  public:
    explicit Gate(int folder) : fd_(retry([&] { return ::openat(folder, "tmp", kToRead); })) {}

    // A folder without tmp has no gate, and no deliveries.
    bool pass() { return !fd_ || try_flock(fd_.get(), LOCK_SH); }
    bool close() { return closed_ = closed_ || !fd_ || try_flock(fd_.get(), LOCK_EX); }
    void leave() {
        if (fd_) ::flock(fd_.get(), LOCK_UN);
    }

  private:
    Fd fd_;
    bool closed_ = false;
};

bool try_shared(int folder, Gate& gate) {
    if (!gate.pass()) return false;
    const bool locked = try_flock(folder, LOCK_SH);
    gate.leave();
    return locked;
}

bool try_exclusive(int folder, Gate& gate) { return gate.close() && try_flock(folder, LOCK_EX); }

void acquire(int folder, LockKind kind, const Pause& pause) {
    // Nobody needs the gate for a folder that is free.
    if (kind == LockKind::exclusive && try_flock(folder, LOCK_EX)) return;
    Gate gate(folder);
    const auto attempt = kind == LockKind::shared ? try_shared : try_exclusive;
    for (int milliseconds = kShortestPause; !attempt(folder, gate);) {
        pause(milliseconds);
        milliseconds = std::min(2 * milliseconds, kLongestPause);
    }
}

bool stands_at(const string& path, const Identity& identity) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && Identity{st.st_dev, st.st_ino} == identity;
}

}  // namespace

Identity identity_of(int fd) {
    struct stat st;
    if (::fstat(fd, &st) != 0) return {};
    return {st.st_dev, st.st_ino};
}

void sleep_milliseconds(int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

bool FolderLock::lock_level(const string& path, LockKind kind, const Pause& pause,
                            const Leave& leave) {
    for (;;) {
        Level level;
        level.fd.reset(retry([&] { return ::open(path.c_str(), kToRead); }));
        if (!level.fd) return false;
        level.identity = identity_of(level.fd.get());
        if (leave && leave(level.identity)) {
            errno = EEXIST;
            return false;
        }
        acquire(level.fd.get(), kind, pause);
        if (!stands_at(path, level.identity)) continue;
        levels_.push_back(std::move(level));
        return true;
    }
}

bool FolderLock::lock_alone(const string& path, LockKind kind, const Pause& pause,
                            const Leave& leave) {
    unlock();
    return lock_level(path, kind, pause, leave);
}

bool FolderLock::lock(const TSMailUserId& id, const string& folder, LockKind kind,
                      const Pause& pause) {
    unlock();
    for (std::size_t end = 0; end != string::npos;) {
        end = folder.find('/', end + 1);
        const LockKind here = end == string::npos ? kind : LockKind::shared;
        if (lock_level(id.mailfolder(folder.substr(0, end)), here, pause, nullptr)) continue;
        unlock();
        return false;
    }
    return true;
}

FolderLock locked_folder(const TSMailUserId& id, const string& folder, LockKind kind) {
    FolderLock lock;
    if (lock.lock(id, folder, kind)) return lock;
    if (errno == ENOENT)
        throw Failure(kExitNoInput, "there is no folder \"" + printable(folder) + '"');
    throw system_failure(printable(id.mailfolder(folder)));
}

}  // namespace Tessaly::tool
