// Sizes from the message files themselves.
#include <fcntl.h>
#include <sys/stat.h>
#include <tessaly/mailstore.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <functional>
#include <limits>
#include <string_view>
#include <utility>

#include "base/dir_reader.h"
#include "base/fd.h"
#include "base/guard.h"
#include "base/number.h"
#include "base/store_names.h"
#include "mailsize/cache.h"
#include "mailsize/folder_path.h"
#include "mailsize/key_set.h"
#include "mailsize/name_size.h"
#include "mailsize/tagging.h"

namespace Tessaly::mailsize {

namespace {

using std::string_view;

using names::kCur, names::kNew, names::kTmp;

// Opens dir/sub, or dir itself if sub is empty.
base::Fd open_directory(const char* dir, string_view sub) {
    constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
    if (sub.empty()) return base::Fd(base::retry([&] { return ::open(dir, kFlags); }));
    FolderPath path(dir, sub);
    if (path.cut()) {
        errno = ENAMETOOLONG;
        return {};
    }
    return base::Fd(base::retry([&] { return ::open(path.c_str(), kFlags); }));
}

// Whether errno says that an object does not exist, and not that it could not be looked at.
bool is_missing() { return errno == ENOENT || errno == ENOTDIR; }

bool is_before(const timespec& a, const timespec& b) {
    return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

// The present time, less the delay of a file system's times.
timespec now_less_a_tick() {
    constexpr long kTick = 20'000'000, kSecond = 1'000'000'000;
    timespec time;
    ::clock_gettime(CLOCK_REALTIME, &time);
    time.tv_nsec -= kTick;
    if (time.tv_nsec < 0) {
        time.tv_nsec += kSecond;
        --time.tv_sec;
    }
    return time;
}

// What stays the same when a message is tagged: its inode and its name without the size field.
std::uint64_t key_of(const dirent64& entry) {
    constexpr std::uint64_t kOdd = 0x9E3779B97F4A7C15;  // spreads inode numbers over the bits
    NameBuffer buffer;
    string_view name = entry.d_name;
    if (is_tagged(name)) name = untagged_name(name, buffer);
    const std::uint64_t key = std::hash<string_view>()(name) ^ (entry.d_ino * kOdd);
    return key != 0 ? key : 1;
}

// One scan of up to three directories of a folder.
class Scan {
  public:
    explicit Scan(int flags) : flags_(flags) {}

    // Adds a directory to the scan and tags its entries if wanted. One that cannot be opened adds
    // nothing.
    void add(const char* dir, string_view sub);
    // The sum of the entries of all directories.
    long long sum();
    // Whether everything that exists was counted.
    bool complete() const { return complete_; }

  private:
    struct Directory {
        base::Fd fd;
        dev_t device = 0;  // known when the scan is careful
        ino_t inode = 0;
        long long size = 0;  // of its entries
    };

    void add_all();
    void add_directory(Directory& dir);
    void add_entry(Directory& dir, const dirent64& entry);
    bool any_changed_since(const timespec& time);
    const Directory* find_same(const Directory& dir) const;

    const int flags_;
    Directory dirs_[3];
    int used_ = 0;
    long long sum_ = 0;
    bool complete_ = true;
    bool careful_ = false;
    KeySet counted_;  // when careful
};

void Scan::add(const char* dir, string_view sub) {
    base::Fd fd = open_directory(dir, sub);
    complete_ = complete_ && (fd || is_missing());
    if (!fd) return;
    if ((flags_ & TSL_SCAN_TAG_FIRST) != 0) tag_entries(fd.get(), sub == kCur);
    dirs_[used_++].fd = std::move(fd);
}

// If names in a directory change while it is read, an entry may appear twice: under its old and its
// new name, or (on some file systems) under the same name. A message that is tagged also passes
// through tmp. So if anything changed, everything is counted again by a careful pass, which notes
// what it has counted. Most scans do not need that pass.
long long Scan::sum() {
    const timespec begin = now_less_a_tick();
    add_all();
    if (!any_changed_since(begin)) return sum_;
    return base::no_throw(sum_, [this] {
        careful_ = true;
        add_all();
        return sum_;
    });
}

void Scan::add_all() {
    sum_ = 0;
    for (int i = 0; i < used_; ++i) {
        Directory& dir = dirs_[i];
        dir.size = 0;
        // A directory under a second name (a link) counts again.
        const Directory* same = careful_ ? find_same(dir) : nullptr;
        if (same != nullptr) {
            dir.size = same->size;
        } else {
            add_directory(dir);
        }
        base::add_up(sum_, dir.size);
    }
}

void Scan::add_directory(Directory& dir) {
    base::DirReader reader(dir.fd.get());
    if (careful_ || (flags_ & TSL_SCAN_TAG_FIRST) != 0) reader.rewind();
    while (const dirent64* entry = reader.next_real()) add_entry(dir, *entry);
    complete_ = complete_ && !reader.failed();
}

void Scan::add_entry(Directory& dir, const dirent64& entry) {
    const long long size = (flags_ & TSL_SCAN_STAT_ONLY) != 0 ? -1 : size_in_name(entry.d_name);
    const std::uint64_t key = careful_ ? key_of(entry) : 0;
    const bool met = careful_ && counted_.contains(key);
    struct stat st;
    if (size < 0 || met) {
        if (::fstatat(dir.fd.get(), entry.d_name, &st, 0) != 0) {
            complete_ = complete_ && is_missing();
            return;
        }
        // The same file again. (Each of several links to a file is a message.)
        if (met && st.st_nlink == 1 && st.st_ino == entry.d_ino) return;
    }
    base::add_up(dir.size, size < 0 ? static_cast<long long>(st.st_size) : size);
    if (careful_) counted_.insert(key);
}

// Looks at the times of all directories, and notes their identities.
bool Scan::any_changed_since(const timespec& time) {
    bool changed = false;
    for (Directory& dir : dirs_) {
        struct stat st;
        if (!dir.fd) break;
        if (::fstat(dir.fd.get(), &st) != 0) return true;
        dir.device = st.st_dev;
        dir.inode = st.st_ino;
        changed = changed || !is_before(st.st_ctim, time);
    }
    return changed;
}

// An earlier entry of the scan that is the same directory.
const Scan::Directory* Scan::find_same(const Directory& dir) const {
    const Directory* found = std::find_if(dirs_, &dir, [&dir](const Directory& other) {
        return dir.inode != 0 && other.inode == dir.inode && other.device == dir.device;
    });
    return found == &dir ? nullptr : found;
}

// The newest time at which a message came into the folder or left it. Changes in tmp do not count.
time_t newest_time(const char* folder, time_t newest) {
    for (const string_view sub : {kCur, kNew}) {
        struct stat st;
        FolderPath path(folder, sub);
        if (!path.cut() && ::stat(path.c_str(), &st) == 0) newest = std::max(newest, st.st_mtime);
    }
    return newest;
}

long long scan_folder(const char* folder, time_t newest, int flags) {
    Scan scan(flags);
    for (const string_view sub : {kCur, kNew, kTmp}) scan.add(folder, sub);
    const long long sum = scan.sum();
    // The sum of a part must not be taken for the size next time.
    if (scan.complete()) write_scan_cache(folder, newest, sum);
    return sum;
}

// `st` if the caller has it already, else the path's status, or nullptr if stat fails.
const struct stat* status_of(const char* path, const struct stat* st, struct stat& buffer) {
    if (st != nullptr) return st;
    return path != nullptr && ::stat(path, &buffer) == 0 ? &buffer : nullptr;
}

}  // namespace

}  // namespace Tessaly::mailsize

using namespace Tessaly::mailsize;

long long tsl_get_dir_size(const char* dir, const char* sub, int flags) {
    if (dir == nullptr) return 0;
    Scan scan(flags);
    scan.add(dir, sub == nullptr ? string_view() : sub);
    return scan.sum();
}

long long tsl_get_mailbox_size(const char* path, const struct stat* st) {
    struct stat buffer;
    st = status_of(path, st, buffer);
    if (st == nullptr) return 0;
    if (!S_ISDIR(st->st_mode)) return st->st_size;
    return read_scan_cache(path, Fields::anywhere).size;
}

long long tsl_get_mailbox_size_actual(const char* path, const struct stat* st, int flags) {
    struct stat buffer;
    st = status_of(path, st, buffer);
    if (st == nullptr) return 0;
    if (!S_ISDIR(st->st_mode)) return st->st_size;
    const ScanCache cache = read_scan_cache(path, Fields::at_start);
    const time_t newest = newest_time(path, st->st_mtime);
    if (cache.size != 0 && newest <= cache.mtime) return cache.size;
    return scan_folder(path, newest, flags);
}
