#include "tools/work/scheduled.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <tuple>

#include "base/dir_reader.h"
#include "base/store_names.h"
#include "tools/cli/address.h"
#include "tools/cli/descriptors.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/work/folder_lock.h"
#include "tools/work/hidden_name.h"
#include "tools/work/paths.h"
#include "tools/work/records.h"
#include "tools/work/uncounted.h"

namespace Tessaly::tool {

namespace {

using std::string;
using std::string_view;

constexpr int kToRead = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
constexpr int kToWrite = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
constexpr int kDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

string last_part(const string& path) { return path.substr(path.rfind('/') + 1); }

string above(const string& folder) {
    const auto slash = folder.rfind('/');
    return slash == string::npos ? "" : folder.substr(0, slash);
}

// The name in the record of a scheduled folder; "" if there is none, or none that a folder may
// have.
string recorded_place(const string& path) {
    const Fd folder(retry([&] { return ::open(path.c_str(), kDirectory); }));
    const Fd record(folder ? ::openat(folder.get(), names::kRemovedFrom.data(), kToRead) : -1);
    struct stat st;
    if (!record || ::fstat(record.get(), &st) != 0 || !S_ISREG(st.st_mode)) return "";
    char text[PATH_MAX];
    const ssize_t n = base::pread_full(record.get(), text, sizeof text, 0);
    string name(text, static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
    return is_folder_name(name) ? name : "";
}

// The move to the hidden name sets the time of change.
timespec scheduled_at(const string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0 ? st.st_ctim : timespec{0, 0};
}

bool is_older(const string& path, std::chrono::seconds age) {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) return false;
    struct timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now);
    return std::chrono::seconds(now.tv_sec - st.st_ctim.tv_sec) > age;
}

bool was_called(const string& path, const string& folder) {
    const auto name = hidden_name_in(last_part(path));
    if (!name || name->claimed) return false;
    const string recorded = recorded_place(path);
    return recorded.empty() ? name->base == folder : recorded == folder;
}

Failure not_free(const string& path, const char* why) {
    return {kExitCannotCreate, printable(path) + ": " + why, EEXIST};
}

bool is_sub_dir(string_view name) {
    return std::find(std::begin(names::kSubDirs), std::end(names::kSubDirs), name) !=
           std::end(names::kSubDirs);
}

// Whether an open directory has no entries besides "." and "..".
bool is_empty(int directory) {
    base::DirReader reader(directory);
    return reader.next_real() == nullptr && !reader.failed();
}

// A Failure unless the folder, which is open, is empty: no messages, nothing in tmp, no folders.
void demand_empty(int folder, const string& path) {
    base::DirReader reader(folder);
    while (const dirent64* entry = reader.next_real()) {
        struct stat st;
        if (::fstatat(folder, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        if (S_ISREG(st.st_mode)) continue;
        const Fd sub(is_sub_dir(entry->d_name) ? ::openat(folder, entry->d_name, kDirectory) : -1);
        if (!sub || !is_empty(sub.get())) throw not_free(path, "this folder is not empty");
    }
    if (reader.failed()) throw system_failure(printable(path));
    ::lseek(folder, 0, SEEK_SET);
}

// Removes a folder that demand_empty() has found empty. It cannot remove a message: the system
// refuses to remove a directory into which one came meanwhile.
void remove_empty_folder(int folder, const string& path) {
    for (const char* sub : names::kSubDirs) {
        if (::unlinkat(folder, sub, AT_REMOVEDIR) == 0 || errno == ENOENT) continue;
        throw system_failure(printable(path));
    }
    base::DirReader reader(folder);
    while (const dirent64* entry = reader.next_real()) ::unlinkat(folder, entry->d_name, 0);
    if (::rmdir(path.c_str()) != 0) throw system_failure(printable(path));
}

bool stands(const string& path) {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) {
        if (errno == ENOENT || errno == ENOTDIR) return false;
        throw system_failure(printable(path));
    }
    if (!S_ISDIR(st.st_mode)) throw not_free(path, "something else has this name");
    return true;
}

// Frees the folder's place and returns the lock under which it stays free of this program's
// deliveries.
FolderLock free_place(const TSMailUserId& id, const string& folder, const FolderMaker& maker) {
    const string path = id.mailfolder(folder), parent = above(folder);
    if (stands(path)) {
        FolderLock lock = locked_folder(id, folder, LockKind::exclusive);
        demand_empty(lock.fd(), path);
        try {
            remove_empty_folder(lock.fd(), path);
        } catch (const Failure&) {
            maker.make_folder(id, folder);
            throw;
        }
        return lock;
    }
    if (parent.empty()) return {};
    maker.make_folder(id, parent);
    return locked_folder(id, parent, LockKind::shared);
}

void move_new(const string& from, const string& to) {
    bool moved = rename_new(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str());
    // A directory never replaces another one that is not empty.
    if (!moved && (errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP)) {
        moved = ::rename(from.c_str(), to.c_str()) == 0;
    }
    if (!moved) throw system_failure("moving " + printable(from) + " to " + printable(to));
}

void remove_record_in(const string& path) {
    const Fd folder(retry([&] { return ::open(path.c_str(), kDirectory); }));
    if (folder) remove_record(folder.get());
}

}  // namespace

void record_place(int folder, const string& name) {
    const Fd record(
        retry([&] { return ::openat(folder, names::kRemovedFrom.data(), kToWrite, 0600); }));
    if (!record) throw system_failure(names::kRemovedFrom.data());
    if (base::pwrite_all(record.get(), name, 0)) return;
    const int error = errno;
    remove_record(folder);
    throw system_failure(names::kRemovedFrom.data(), error);
}

void remove_record(int folder) noexcept { ::unlinkat(folder, names::kRemovedFrom.data(), 0); }

std::vector<string> scheduled_in(const TSMailUserId& id,
                                 std::optional<std::chrono::seconds> older) {
    std::vector<string> paths;
    for (const string& directory : {id.homepath(), id.mailpath()}) {
        for (const string& name : names_in(directory)) {
            if (tsm_is_deleted_user_path(name.c_str()) == 0) continue;
            string path = in(directory, name);
            if (!older || is_older(path, *older)) paths.push_back(std::move(path));
        }
    }
    return paths;
}

void sweep_path(const string& path) {
    const auto name = hidden_name_in(last_part(path));
    const string claimed = path.substr(0, path.rfind('/') + 1) + claimed_name(last_part(path));
    if (!name || name->claimed || !rename_new(AT_FDCWD, path.c_str(), AT_FDCWD, claimed.c_str())) {
        return delete_tree(path);
    }
    delete_tree(claimed);
}

string scheduled_folder(const TSMailUserId& id, const string& folder) {
    string youngest;
    timespec latest = {0, 0};
    for (const string& path : scheduled_in(id)) {
        if (!was_called(path, folder)) continue;
        const timespec since = scheduled_at(path);
        if (!youngest.empty() &&
            std::tie(since.tv_sec, since.tv_nsec) < std::tie(latest.tv_sec, latest.tv_nsec)) {
            continue;
        }
        youngest = path;
        latest = since;
    }
    if (!youngest.empty()) return youngest;
    throw Failure(kExitNoInput, "no folder \"" + printable(folder) + "\" is scheduled for removal");
}

void demand_free_place(const TSMailUserId& id, const string& folder) {
    const string path = id.mailfolder(folder);
    if (!stands(path)) return;
    const Fd open(retry([&] { return ::open(path.c_str(), kDirectory); }));
    if (!open) throw system_failure(printable(path));
    demand_empty(open.get(), path);
}

Amount amount_of_scheduled(const string& path) {
    Amount amount = amount_below(path);
    if (!recorded_place(path).empty() && amount.others > 0) --amount.others;
    return amount;
}

Removal restore_folder(const TSMailUserId& id, const string& path, const string& folder,
                       const FolderMaker& maker) {
    const string to = id.mailfolder(folder);
    const bool stood = stands(to);
    const FolderLock lock = free_place(id, folder, maker);
    const Amount amount = amount_of_scheduled(path);
    Uncounted uncounted(id);
    try {
        move_new(path, to);
    } catch (const Failure&) {
        uncounted.counted();
        if (stood) maker.make_folder(id, folder);
        throw;
    }
    remove_record_in(to);
    const bool counted =
        amount.error == 0 && add_to_mailbox_record(id, static_cast<long long>(amount.bytes),
                                                   static_cast<long long>(amount.messages));
    if (counted) uncounted.counted();
    return {amount, counted};
}

}  // namespace Tessaly::tool
