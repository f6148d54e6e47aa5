#include "tools/doctor/spool_traits.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <utility>

#include "base/dir_reader.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/work/folder_lock.h"

namespace Tessaly::tool {

namespace {

using std::string;

Fd opened(int directory, const char* name, int flags) {
    Fd fd(retry([&] { return ::openat(directory, name, flags | O_CLOEXEC, 0600); }));
    if (!fd) throw system_failure(name);
    return fd;
}

Fd made(int directory, const char* name) { return opened(directory, name, O_RDWR | O_CREAT); }

// ---- locks

// Whether a second descriptor of the same thing has to wait for the lock of the first.
Outcome lock_outcome(const Fd& first, const Fd& second) {
    if (::flock(first.get(), LOCK_EX) != 0) return {Standing::fails, error_text(errno)};
    if (::flock(second.get(), LOCK_EX | LOCK_NB) == 0) {
        return {Standing::fails, "two processes get the same lock"};
    }
    if (errno != EWOULDBLOCK) return {Standing::fails, error_text(errno)};
    ::flock(first.get(), LOCK_UN);
    if (::flock(second.get(), LOCK_EX | LOCK_NB) == 0) return {Standing::holds, ""};
    return {Standing::fails, "a lock that was given back is not free"};
}

Outcome look_at_file_locks(int directory) {
    const Fd first = made(directory, "locked");
    return lock_outcome(first, opened(directory, "locked", O_RDWR));
}

Outcome look_at_directory_locks(int directory) {
    constexpr int kToRead = O_RDONLY | O_DIRECTORY;
    Outcome outcome =
        lock_outcome(opened(directory, ".", kToRead), opened(directory, ".", kToRead));
    if (!may_be_shared(directory)) return outcome;
    return {Standing::adapts, "other machines may share it: folders are locked by files"};
}

// ---- names

Outcome look_at_unnamed_files(int directory) {
    const Fd fd(::openat(directory, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
    if (!fd) return {Standing::adapts, error_text(errno) + ": a name in tmp is used"};
    const string self = fmt::format("/proc/self/fd/{}", fd.get());
    if (::linkat(AT_FDCWD, self.c_str(), directory, "unnamed", AT_SYMLINK_FOLLOW) == 0) {
        return {Standing::holds, ""};
    }
    return {Standing::adapts, error_text(errno) + ": a name in tmp is used"};
}

Outcome look_at_renames(int directory) {
    made(directory, "one");
    made(directory, "two");
    if (rename_new(directory, "one", directory, "two")) {
        return {Standing::fails, "a rename replaced a file that it must not replace"};
    }
    if (errno != EEXIST) return {Standing::adapts, error_text(errno) + ": links are used"};
    if (rename_new(directory, "one", directory, "free")) return {Standing::holds, ""};
    return {Standing::fails, error_text(errno)};
}

Outcome look_at_links(int directory) {
    made(directory, "linked");
    made(directory, "other");
    if (::linkat(directory, "linked", directory, "link", 0) != 0) {
        return {Standing::fails, error_text(errno)};
    }
    if (::linkat(directory, "linked", directory, "other", 0) == 0 || errno != EEXIST) {
        return {Standing::fails, "a link replaced a file"};
    }
    return {Standing::holds, ""};
}

Outcome look_at_types(int directory) {
    made(directory, "typed");
    const Fd again = opened(directory, ".", O_RDONLY | O_DIRECTORY);
    base::DirReader reader(again.get());
    while (const dirent64* entry = reader.next_real()) {
        if (entry->d_type == DT_UNKNOWN) {
            return {Standing::adapts, "not told: every entry costs a call more"};
        }
    }
    return {Standing::holds, ""};
}

// ---- contents and times

Outcome look_at_appending(int directory) {
    const Fd fd = opened(directory, "appended", O_RDWR | O_CREAT | O_APPEND);
    const bool written = ::pwrite(fd.get(), "first", 5, 0) == 5 &&
                         ::fcntl(fd.get(), F_SETFL, 0) == 0 && ::pwrite(fd.get(), "2", 1, 0) == 1;
    struct stat st;
    if (!written || ::fstat(fd.get(), &st) != 0) return {Standing::fails, error_text(errno)};
    if (st.st_size == 5) return {Standing::holds, ""};
    return {Standing::adapts, "a second descriptor is used to rewrite a file"};
}

Outcome look_at_times(int directory) {
    const Fd fd = made(directory, "timed");
    const timespec given[] = {{1763275200, 123456789}, {1763275200, 123456789}};
    struct stat st;
    if (::futimens(fd.get(), given) != 0 || ::fstat(fd.get(), &st) != 0) {
        return {Standing::fails, error_text(errno)};
    }
    if (st.st_mtim.tv_nsec == given[1].tv_nsec) return {Standing::holds, "nanoseconds"};
    if (st.st_mtim.tv_nsec != 0) {
        return {Standing::holds, fmt::format("{} of 123456789 ns", st.st_mtim.tv_nsec)};
    }
    return {Standing::adapts, "whole seconds: a young scan cache is not trusted"};
}

Outcome look_at_flushes(int directory) {
    const Fd fd = made(directory, "flushed");
    const Fd top = opened(directory, ".", O_RDONLY | O_DIRECTORY);
    if (::fsync(fd.get()) != 0) return {Standing::fails, "a file: " + error_text(errno)};
    if (::fsync(top.get()) != 0) return {Standing::fails, "a directory: " + error_text(errno)};
    return {Standing::holds, ""};
}

// ---- room

// Below this part of all a full disk is near.
constexpr unsigned kLeastPercent = 2;

unsigned percent(std::uint64_t part, std::uint64_t whole) {
    return static_cast<unsigned>(static_cast<double>(part) * 100 / static_cast<double>(whole));
}

Outcome look_at_room(int directory) {
    struct statvfs fs;
    if (::fstatvfs(directory, &fs) != 0) return {Standing::fails, error_text(errno)};
    const unsigned room = fs.f_blocks == 0 ? 100 : percent(fs.f_bavail, fs.f_blocks);
    const unsigned names = fs.f_files == 0 ? 100 : percent(fs.f_favail, fs.f_files);
    const bool little = room < kLeastPercent || names < kLeastPercent;
    return {
        little ? Standing::fails : Standing::holds,
        fmt::format("{} ({} %) and {} inodes ({} %) are free",
                    size_text(std::uint64_t{fs.f_bavail} * fs.f_frsize), room, fs.f_favail, names)};
}

constexpr Trait kTraits[] = {
    {"file-locks", "size files, preferences and lists are changed under a lock",
     "mount with locks, for NFS without nolock", look_at_file_locks},
    {"directory-locks", "a folder is recounted while no delivery is half done",
     "use a file system with flock", look_at_directory_locks},
    {"unnamed-files", "a delivery that is killed leaves nothing in tmp", "nothing is to be done",
     look_at_unnamed_files},
    {"links", "a message appears whole and replaces nothing", "use a file system with hard links",
     look_at_links},
    {"exclusive-renames", "a message moves and replaces nothing", "nothing is to be done",
     look_at_renames},
    {"entry-types", "directories are read without a call for each entry",
     "for XFS and ext4: make the file system with ftype=1 or filetype", look_at_types},
    {"appending", "size files are rewritten at their beginning", "nothing is to be done",
     look_at_appending},
    {"times", "a scan cache is younger than the folder's last change", "nothing is to be done",
     look_at_times},
    {"flushes", "an acknowledged message survives a crash",
     "mount with barriers and without async on the server", look_at_flushes},
    {"room", "mail is refused for a time when the disk is full",
     "add room, or remove mail with expire and sweep", look_at_room},
};

}  // namespace

std::span<const Trait> spool_traits() { return kTraits; }

TryDirectory::TryDirectory(const string& parent, string name) : name_(std::move(name)) {
    parent_.reset(
        retry([&] { return ::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    const string path = printable(parent + '/' + name_);
    if (!parent_ || ::mkdirat(parent_.get(), name_.c_str(), 0700) != 0) throw system_failure(path);
    fd_.reset(retry([&] {
        return ::openat(parent_.get(), name_.c_str(),
                        O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    }));
    if (!fd_) throw system_failure(path);
}

TryDirectory::~TryDirectory() {
    base::DirReader reader(fd_.get());
    while (const dirent64* entry = reader.next_real()) ::unlinkat(fd_.get(), entry->d_name, 0);
    ::unlinkat(parent_.get(), name_.c_str(), AT_REMOVEDIR);
}

}  // namespace Tessaly::tool
