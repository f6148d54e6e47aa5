#include "tools/work/message_change.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <optional>

#include "base/rename.h"
#include "base/store_names.h"
#include "tools/cli/descriptors.h"
#include "tools/cli/text.h"
#include "tools/work/folder_lock.h"
#include "tools/work/message_name.h"
#include "tools/work/message_size.h"
#include "tools/work/records.h"
#include "tools/work/removal.h"
#include "tools/work/uncounted.h"

namespace Tessaly::tool {

namespace {

using std::string;
using Names = std::vector<string>;

// So many messages are changed under one lock and with one entry in each size record.
constexpr std::size_t kGroup = 512;
constexpr int kDirectory = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
constexpr std::string_view kPlaces[] = {names::kNew, names::kCur};
constexpr std::size_t kCurPlace = 1;

// The two directories of a locked folder that hold messages.
class Places {
  public:
    Places(int folder, string path) : path_(std::move(path)) {
        for (std::size_t i = 0; i < std::size(kPlaces); ++i) {
            fds_[i].reset(retry([&] { return ::openat(folder, kPlaces[i].data(), kDirectory); }));
        }
    }
    int fd(std::size_t place) const { return fds_[place].get(); }
    string path(std::size_t place, const string& name) const {
        return path_ + '/' + string(kPlaces[place]) + '/' + name;
    }
    const string& path() const { return path_; }
    // What was renamed is on the disk afterwards.
    void flush() const {
        for (const Fd& fd : fds_) {
            if (fd) retry([&] { return ::fsync(fd.get()); });
        }
    }

  private:
    string path_;
    Fd fds_[std::size(kPlaces)];
};

struct Found {
    std::size_t place;
    std::uint64_t bytes;
};

// The size that the records have for a message: that in its name, else that of its file.
std::optional<Found> find(const Places& places, const string& name) {
    for (std::size_t place = 0; place < std::size(kPlaces); ++place) {
        struct stat st;
        if (::fstatat(places.fd(place), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        if (!S_ISREG(st.st_mode)) continue;
        return Found{place, counted_size(get_maildir_msg_len_from_name(name.c_str()), st)};
    }
    return std::nullopt;
}

Failure missing(const Places& places, const string& name) {
    return {kExitNoInput,
            "there is no message \"" + printable(name) + "\" in " + printable(places.path())};
}

void rename_message(int from, const string& name, int to, const string& new_name,
                    const string& path) {
    if (base::move_new(from, name.c_str(), to, new_name.c_str())) return;
    throw system_failure(printable(path));
}

// Changes one message; returns it before and after.
using ChangeOne = std::function<MessageChange(const string& name)>;

MessageChanges change_each(const Names& names, const ChangeOne& change) {
    MessageChanges changes;
    for (const string& name : names) {
        try {
            changes.done.push_back(change(name));
        } catch (const Failure& failure) {
            changes.failed.push_back(failure);
        }
    }
    return changes;
}

void in_groups(const Names& names, const SignalHold& signals,
               const std::function<void(const Names&)>& work) {
    for (std::size_t at = 0; at < names.size(); at += kGroup) {
        signals.check();
        const auto begin = names.begin() + static_cast<std::ptrdiff_t>(at);
        const auto count = std::min(kGroup, names.size() - at);
        work({begin, begin + static_cast<std::ptrdiff_t>(count)});
    }
}

bool count_moved(const TSMailUserId& id, const string& from, const string& to,
                 const MessageChanges& changes) {
    long long bytes = 0;
    const auto messages = static_cast<long long>(changes.done.size());
    for (const MessageChange& change : changes.done) bytes += static_cast<long long>(change.bytes);
    if (messages == 0) return true;
    const bool there = add_to_folder_record(id.mailfolder(to), bytes, messages);
    const bool gone = add_to_folder_record(id.mailfolder(from), -bytes, -messages);
    return there && gone;
}

FolderLock lock_both(const TSMailUserId& id, const string& from, const string& to) {
    FolderLock lock;
    string missing;
    if (lock.lock_both(id, from, to, missing)) return lock;
    if (errno == ENOENT) {
        throw Failure(kExitNoInput, "there is no folder \"" + printable(missing) + '"');
    }
    throw system_failure(printable(id.mailfolder(missing)));
}

MessageChanges move_group(const TSMailUserId& id, const string& from, const string& to,
                          const Names& names, bool dry_run) {
    const FolderLock lock = lock_both(id, from, to);
    const Places source(lock.fd_of(from), id.mailfolder(from));
    const Places target(lock.fd_of(to), id.mailfolder(to));
    std::optional<Uncounted> uncounted;
    if (!dry_run) uncounted.emplace(id);
    MessageChanges changes = change_each(names, [&](const string& name) {
        const auto found = find(source, name);
        if (!found) throw missing(source, name);
        MessageChange change = {source.path(found->place, name), target.path(found->place, name),
                                found->bytes};
        if (!dry_run) {
            rename_message(source.fd(found->place), name, target.fd(found->place), name, change.to);
        }
        return change;
    });
    if (dry_run) return changes;
    changes.counted = count_moved(id, from, to, changes);
    if (changes.counted) uncounted->counted();
    target.flush();
    source.flush();
    return changes;
}

MessageChange flag_one(const Places& places, const string& name, const FlagChange& change,
                       bool dry_run) {
    const auto found = find(places, name);
    if (!found) throw missing(places, name);
    NameParts parts = parts_of(name);
    const string flags = changed_flags(parts.flags, change.added, change.removed);
    const string from = places.path(found->place, name);
    if (flags == changed_flags(parts.flags, "", "")) return {from, from, found->bytes};
    parts.flags = flags;
    const string new_name = name_with_flags(parts);
    const string to = places.path(kCurPlace, new_name);
    if (!dry_run) {
        rename_message(places.fd(found->place), name, places.fd(kCurPlace), new_name, to);
    }
    return {from, to, found->bytes};
}

}  // namespace

void move_messages(const TSMailUserId& id, const string& from, const string& to, const Names& names,
                   const ChangeOptions& options) {
    present_folder(id, from);
    present_folder(id, to);
    in_groups(names, options.signals, [&](const Names& group) {
        options.take(move_group(id, from, to, group, options.dry_run));
    });
}

// The lock is shared: a count would miss a message, or count it twice, that goes from new to cur.
void flag_messages(const TSMailUserId& id, const string& folder, const FlagChange& change,
                   const Names& names, const ChangeOptions& options) {
    const bool dry_run = options.dry_run;
    present_folder(id, folder);
    in_groups(names, options.signals, [&](const Names& group) {
        const FolderLock lock = locked_folder(id, folder, LockKind::shared);
        const Places places(lock.fd(), id.mailfolder(folder));
        const MessageChanges changes = change_each(
            group, [&](const string& name) { return flag_one(places, name, change, dry_run); });
        if (!dry_run) places.flush();
        options.take(changes);
    });
}

}  // namespace Tessaly::tool
