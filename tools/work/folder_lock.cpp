#include "tools/work/folder_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iterator>
#include <set>
#include <thread>

#include "base/store_names.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"

namespace Tessaly::tool {

namespace {

using std::string;

constexpr int kShortestPause = 1, kLongestPause = 20;  // milliseconds
constexpr int kToRead = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
// Readable and writable: a server may turn the lock into a byte-range lock, which needs both.
constexpr int kToLock = O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK;
constexpr mode_t kSharedMode = 0666;

// File systems that other machines may share. On most of them a lock on a directory has no effect
// on other machines, while a lock on a file has.
constexpr std::uint32_t kNetworked[] = {
    0x65735546,  // FUSE
    0x00006969,  // NFS
    0x00c36400,  // Ceph
    0x01161970,  // GFS2
    0x7461636f,  // OCFS2
    0x0bd00bd0,  // Lustre
    0x47504653,  // GPFS
    0x19830326,  // BeeGFS
    0x5346414f,  // AFS
    0xff534d42,  // CIFS
    0xfe534d42,  // SMB 2
    0x01021997,  // 9P
};

// False if another process holds the lock.
bool try_flock(int fd, int operation) {
    if (retry([&] { return ::flock(fd, operation | LOCK_NB); }) == 0) return true;
    if (errno != EWOULDBLOCK) throw system_failure("locking a folder");
    return false;
}

// Opens a lock file in the folder. Returns nothing if the folder has been removed.
Fd open_lock_file(int folder, const char* name) {
    Fd fd(retry([&] { return ::openat(folder, name, kToLock, kSharedMode); }));
    if (!fd && errno != ENOENT && errno != ESTALE) throw system_failure("locking a folder");
    return fd;
}

// A series of overlapping shared locks could keep a process waiting for the exclusive lock for
// ever. The gate prevents that: it is a second lock, on the folder's tmp or on a file. A process
// holds it exclusively while it waits for the exclusive lock, and shared while it tries for a
// shared lock.
class Gate {
  public:
    Gate(int folder, bool networked)
        : fd_(networked
                  ? open_lock_file(folder, names::kFolderGate.data())
                  : Fd(retry([&] { return ::openat(folder, names::kTmp.data(), kToRead); }))) {}

    // A folder without tmp needs no gate, as it gets no deliveries.
    bool pass() { return !fd_ || try_flock(fd_.get(), LOCK_SH); }
    bool close() { return closed_ = closed_ || !fd_ || try_flock(fd_.get(), LOCK_EX); }
    void leave() {
        if (fd_) ::flock(fd_.get(), LOCK_UN);
    }

  private:
    Fd fd_;
    bool closed_ = false;
};

bool try_shared(int lock, Gate& gate) {
    if (!gate.pass()) return false;
    const bool locked = try_flock(lock, LOCK_SH);
    gate.leave();
    return locked;
}

bool try_exclusive(int lock, Gate& gate) { return gate.close() && try_flock(lock, LOCK_EX); }

// `lock` is the folder's own descriptor or that of its lock file.
void acquire(int folder, int lock, LockKind kind, const Pause& pause) {
    // A free folder needs no gate.
    if (kind == LockKind::exclusive && try_flock(lock, LOCK_EX)) return;
    Gate gate(folder, lock != folder);
    const auto attempt = kind == LockKind::shared ? try_shared : try_exclusive;
    for (int milliseconds = kShortestPause; !attempt(lock, gate);) {
        pause(milliseconds);
        milliseconds = std::min(2 * milliseconds, kLongestPause);
    }
}

bool is_removed(int fd) {
    struct stat st;
    return ::fstat(fd, &st) != 0 || st.st_nlink == 0;
}

bool stands_at(const string& path, const Identity& identity) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && Identity{st.st_dev, st.st_ino} == identity;
}

// The order of the walk: a folder before those below it, siblings by name.
struct BeforeInWalk {
    bool operator()(const string& a, const string& b) const {
        return std::lexicographical_compare(
            a.begin(), a.end(), b.begin(), b.end(),
            [](char x, char y) { return place_of(x) < place_of(y); });
    }
    static int place_of(char c) { return c == '/' ? 0 : static_cast<unsigned char>(c); }
};
using WalkOrder = std::set<string, BeforeInWalk>;

// Adds the folder and those above it.
void add_levels(const string& folder, WalkOrder& folders) {
    for (std::size_t end = 0; end != string::npos;) {
        end = folder.find('/', end + 1);
        folders.insert(folder.substr(0, end));
    }
}

}  // namespace

bool may_be_shared(int fd) {
    struct statfs fs;
    if (::fstatfs(fd, &fs) != 0) return false;
    const auto type = static_cast<std::uint32_t>(fs.f_type);
    return std::find(std::begin(kNetworked), std::end(kNetworked), type) != std::end(kNetworked);
}

Fd locked_directory(const string& path) {
    Fd lock(retry([&] { return ::open(path.c_str(), kToRead); }));
    if (lock && may_be_shared(lock.get())) {
        lock = open_lock_file(lock.get(), names::kFolderLock.data());
    }
    if (lock && retry([&] { return ::flock(lock.get(), LOCK_EX); }) == 0) return lock;
    throw system_failure(printable(path));
}

Identity identity_of(int fd) {
    struct stat st;
    if (::fstat(fd, &st) != 0) return {};
    return {st.st_dev, st.st_ino};
}

void sleep_milliseconds(int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

bool FolderLock::lies_on_network(const Level& level) const {
    // Asks once for all folders of a mailbox on the same device.
    const bool known = !levels_.empty() && levels_.back().identity.device == level.identity.device;
    return known ? static_cast<bool>(levels_.back().lock) : may_be_shared(level.fd.get());
}

// Locks the level. False if the path leads to another folder by now.
bool FolderLock::acquire_level(const string& path, Level& level, LockKind kind,
                               const Pause& pause) const {
    if (lies_on_network(level)) {
        level.lock = open_lock_file(level.fd.get(), names::kFolderLock.data());
        if (!level.lock) return false;
    }
    const int lock = level.lock ? level.lock.get() : level.fd.get();
    acquire(level.fd.get(), lock, kind, pause);
    return stands_at(path, level.identity) && !(level.lock && is_removed(lock));
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
        if (!acquire_level(path, level, kind, pause)) continue;
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

bool FolderLock::lock_both(const TSMailUserId& id, const string& one, const string& other,
                           string& missing, const Pause& pause) {
    unlock();
    WalkOrder folders;
    add_levels(one, folders);
    add_levels(other, folders);
    for (const string& folder : folders) {
        if (lock_level(id.mailfolder(folder), LockKind::shared, pause, nullptr)) {
            levels_.back().folder = folder;
            continue;
        }
        missing = folder;
        unlock();
        return false;
    }
    return true;
}

int FolderLock::fd_of(const string& folder) const {
    const auto level = std::find_if(levels_.begin(), levels_.end(),
                                    [&](const Level& l) { return l.folder == folder; });
    return level->fd.get();
}

FolderLock locked_folder(const TSMailUserId& id, const string& folder, LockKind kind) {
    FolderLock lock;
    if (lock.lock(id, folder, kind)) return lock;
    if (errno == ENOENT)
        throw Failure(kExitNoInput, "there is no folder \"" + printable(folder) + '"');
    throw system_failure(printable(id.mailfolder(folder)));
}

}  // namespace Tessaly::tool
