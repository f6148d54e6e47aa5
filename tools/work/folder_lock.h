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

// Which directory or file it is, by whatever path. Of nothing: {0, 0}.
struct Identity {
    dev_t device = 0;
    ino_t inode = 0;
    bool operator==(const Identity&) const = default;
};
Identity identity_of(int fd);

// Waits some milliseconds before a lock is tried again; throws to give up.
using Pause = std::function<void(int milliseconds)>;
void sleep_milliseconds(int milliseconds);

// shared: somebody puts a message into the folder, or takes one out, and corrects the size records.
// exclusive: somebody counts what is in it, or takes all of it away.
enum class LockKind { shared, exclusive };

// A flock on the folder's directory, and shared ones on the directories of the folders above it: so
// whoever holds a folder's exclusive lock knows that nothing of this program goes on in it and
// below it. All lock from the top down and, if several folders, in the order of the walk over them
// (a folder before those below it), which leaves no way for two to wait for each other.
//
// On a file system that several machines may have, a file in the folder takes the directory's
// place: a lock on a directory does not reach the other machine on most of them.
//
// Locks follow the directory, not its name. What is locked in the end is what stood at its path at
// a moment when it was locked: a folder that was removed while it was waited for is passed over.
class FolderLock {
  public:
    // False with errno, and nothing locked, if there is no such folder or it cannot be opened. A
    // Failure if it cannot be locked.
    bool lock(const TSMailUserId& id, const std::string& folder, LockKind kind,
              const Pause& pause = sleep_milliseconds);
    // Only the directory at the path, and not if `leave` says so of it (errno is EEXIST then).
    bool lock_alone(const std::string& path, LockKind kind, const Pause& pause,
                    const std::function<bool(const Identity&)>& leave);
    void unlock() { levels_.clear(); }

    // The folder's directory, open.
    int fd() const { return levels_.back().fd.get(); }
    const Identity& identity() const { return levels_.back().identity; }

  private:
    struct Level {
        Fd fd;
        Fd lock;  // nothing where the directory itself is locked
        Identity identity;
    };
    using Leave = std::function<bool(const Identity&)>;
    bool lies_on_network(const Level& level) const;
    bool acquire_level(const std::string& path, Level& level, LockKind kind,
                       const Pause& pause) const;
    bool lock_level(const std::string& path, LockKind kind, const Pause& pause, const Leave& leave);

    std::vector<Level> levels_;
};

// The same for a folder that must be there: a Failure if it is not.
FolderLock locked_folder(const TSMailUserId& id, const std::string& folder, LockKind kind);

}  // namespace Tessaly::tool

#endif
