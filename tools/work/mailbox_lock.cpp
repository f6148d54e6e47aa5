#include "tools/work/mailbox_lock.h"

#include <fcntl.h>
#include <sys/resource.h>

#include <algorithm>

#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/work/folder_list.h"

namespace Tessaly::tool {

namespace {

using std::string;

// All processes lock a mailbox's folders in the same order, so two recounts do not deadlock, unless
// folders are renamed meanwhile or links lead from one mailbox to another. A process that has
// waited for this long releases all its locks and begins again.
constexpr int kPatience = 10000;  // milliseconds
struct WaitedLong {};

class Patience {
  public:
    void operator()(int milliseconds) {
        if ((waited_ += milliseconds) > kPatience) throw WaitedLong();
        sleep_milliseconds(milliseconds);
    }

  private:
    int waited_ = 0;
};

bool is_locked(const LockedFolders& folders, const Identity& identity) {
    return std::any_of(folders.begin(), folders.end(), [&](const LockedFolder& folder) {
        return folder.lock.identity() == identity;
    });
}

Listing list_whole(int fd, const string& path) {
    Listing listing = list_directory(fd);
    if (listing.error != 0) throw system_failure(printable(path), listing.error);
    return listing;
}

// False if the directory does not exist, or is in `folders` already under another name (by links).
bool lock_directory(const string& path, const LockedFolders& folders, FolderLock& lock) {
    const auto leave = [&](const Identity& identity) { return is_locked(folders, identity); };
    if (lock.lock_alone(path, LockKind::exclusive, Patience(), leave)) return true;
    if (errno == EEXIST || is_no_directory(errno)) return false;
    throw system_failure(printable(path));
}

LockedFolders try_to_lock(const TSMailUserId& id) {
    const string top = id.mailpath();
    const Fd root(retry([&] { return ::open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    if (!root) throw system_failure(printable(top));
    LockedFolders folders;
    for (FolderQueue queue(list_whole(root.get(), top)); !queue.empty();) {
        const string name = queue.take();
        const string path = id.mailfolder(name);
        FolderLock lock;
        if (!lock_directory(path, folders, lock)) continue;
        const Listing listing = list_whole(lock.fd(), path);
        if (!listing.is_folder) continue;
        queue.add_below(name, listing);
        folders.push_back({name, std::move(lock), listing.has_record});
    }
    return folders;
}

}  // namespace

LockedFolders lock_folders(const TSMailUserId& id) {
    for (;;) {
        try {
            return try_to_lock(id);
        } catch (const WaitedLong&) {
            continue;  // all locks are released
        }
    }
}

void raise_open_file_limit() {
    struct rlimit limit;
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace Tessaly::tool
