// FolderLock - keeps deliveries, removals and recounts of a folder apart.
#ifndef TSMAIL_TOOLS_WORK_FOLDER_LOCK_H
#define TSMAIL_TOOLS_WORK_FOLDER_LOCK_H

#include <sys/types.h>
#include <tessaly/MailUserId.h>

#include <functional>
#include <string>
#include <vector>

#include "tools/cli/descriptors.h"

namespace Tessaly::tool {

// Identifies a directory or file independently of its path. {0, 0} if there is none.
struct Identity {
    dev_t device = 0;
    ino_t inode = 0;
    bool operator==(const Identity&) const = default;
};
Identity identity_of(int fd);

// Whether other machines may share the file system, by its type.
bool may_be_shared(int fd);

// Locks a directory, or a file in it where other machines may share the file system, exclusively
// until the result is closed. Waits for the lock. A Failure if that is not possible.
Fd locked_directory(const std::string& path);

// Waits some milliseconds before the next attempt to lock; throws to give up.
using Pause = std::function<void(int milliseconds)>;
void sleep_milliseconds(int milliseconds);

// shared: to add a message to the folder, or remove one, and correct the size records. exclusive:
// to count the folder's messages, or remove the folder.
enum class LockKind { shared, exclusive };

// A flock on the folder's directory, and shared locks on the directories of the folders above it.
// While a process holds a folder's exclusive lock, no other tsmail process works in the folder or
// below it. Every process locks from the top down and locks several folders in the order of the
// walk over them (a folder before those below it), which prevents deadlocks.
//
// On a file system that several machines may share, a file in the folder is locked instead of the
// directory: on most of them, a lock on a directory has no effect on other machines.
//
// A lock follows the directory, not its name. After locking, the path is checked: if it leads to
// another directory, because the folder was removed during the wait, that one is locked instead.
class FolderLock {
  public:
    // Locks the folder. False with errno, and nothing locked, if the folder does not exist or
    // cannot be opened. A Failure if it cannot be locked.
    bool lock(const TSMailUserId& id, const std::string& folder, LockKind kind,
              const Pause& pause = sleep_milliseconds);
    // Locks two folders shared, and the folders above them, each directory once and in the order of
    // the walk. False as above; `missing` is then the folder that does not exist.
    bool lock_both(const TSMailUserId& id, const std::string& one, const std::string& other,
                   std::string& missing, const Pause& pause = sleep_milliseconds);
    // Locks only the directory at the path. False with EEXIST if `leave` returns true for it.
    bool lock_alone(const std::string& path, LockKind kind, const Pause& pause,
                    const std::function<bool(const Identity&)>& leave);
    void unlock() { levels_.clear(); }

    // The folder's directory, open.
    int fd() const { return levels_.back().fd.get(); }
    // The directory of a folder that lock_both() locked.
    int fd_of(const std::string& folder) const;
    const Identity& identity() const { return levels_.back().identity; }

  private:
    struct Level {
        Fd fd;
        Fd lock;  // empty if the directory itself is locked
        Identity identity;
        std::string folder;  // only for lock_both()
    };
    using Leave = std::function<bool(const Identity&)>;
    bool lies_on_network(const Level& level) const;
    bool acquire_level(const std::string& path, Level& level, LockKind kind,
                       const Pause& pause) const;
    bool lock_level(const std::string& path, LockKind kind, const Pause& pause, const Leave& leave);

    std::vector<Level> levels_;
};

// Locks a folder that must exist: a Failure if it does not.
FolderLock locked_folder(const TSMailUserId& id, const std::string& folder, LockKind kind);

}  // namespace Tessaly::tool

#endif
