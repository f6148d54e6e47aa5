// The walk over a tree of mail folders.
//
// Directories are read through descriptors. The working directory, which a visitor may rely on, is
// moved only when a visit needs it. The levels of the walk lie on the heap, and only the deepest
// ones keep their descriptors, so that neither the stack nor the descriptors limit the depth.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/dir_reader.h"
#include "base/fd.h"
#include "base/guard.h"
#include "base/text.h"
#include "maildir/folders.h"

namespace Tessaly::maildir {

namespace {

using base::Fd;
using std::string_view;

using Visit = int (*)(const char* name, const struct stat* st, void* arg);

constexpr int kToRead = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
constexpr int kToReach = O_PATH | O_DIRECTORY | O_CLOEXEC;
constexpr size_t kOpenLevels = 16;  // the deepest levels, which keep their descriptors

// Which directory it is, by whatever path.
struct Identity {
    dev_t device;
    ino_t inode;
    bool operator==(const Identity&) const = default;
};

bool identify(int fd, Identity& identity) {
    struct stat st;
    if (base::retry([&] { return ::fstat(fd, &st); }) != 0) return false;
    identity = {st.st_dev, st.st_ino};
    return true;
}

// False if the working directory has no path (it was removed) or one that is too long.
bool get_working_directory(char (&path)[PATH_MAX]) { return ::getcwd(path, PATH_MAX) != nullptr; }

bool move_to(const Fd& dir) {
    return base::retry([&] { return ::fchdir(dir.get()); }) == 0;
}

bool move_to(const char* path) {
    return base::retry([=] { return ::chdir(path); }) == 0;
}

// Moves the process back to its working directory, whatever ends the walk. A process that may not
// search that directory cannot return to it; it is left in the top of the walk, the only directory
// that its caller knows.
class WorkingDirectoryKeeper {
  public:
    WorkingDirectoryKeeper(const char* path, const char* top)
        : path_(path), top_(top), before_(base::retry([] { return ::open(".", kToReach); })) {}
    WorkingDirectoryKeeper(const WorkingDirectoryKeeper&) = delete;
    WorkingDirectoryKeeper& operator=(const WorkingDirectoryKeeper&) = delete;
    ~WorkingDirectoryKeeper() {
        if (before_) {
            move_to(before_);
        } else if (!move_to(path_) && moved_) {
            move_to(top_);
        }
    }
    void set_moved() { moved_ = true; }

  private:
    const char* const path_;  // of the working directory
    const char* const top_;
    const Fd before_;
    bool moved_ = false;
};

// The entries of a directory that may be folders, in alphasort order.
class Listing {
  public:
    // Replaces the entries by those of the directory. False if it cannot be read to its end.
    bool read(int fd);
    bool empty() const { return order_.empty(); }
    // The next entry's name, valid until the listing is moved or read again; nullptr at the end.
    const char* take() {
        return next_ == order_.size() ? nullptr : names_.c_str() + order_[next_++];
    }

  private:
    std::string names_;  // each with its NUL
    std::vector<size_t> order_;
    size_t next_ = 0;
};

bool Listing::read(int fd) {
    names_.clear();
    order_.clear();
    next_ = 0;
    base::DirReader reader(fd);
    while (const dirent64* entry = reader.next_real()) {
        if (!may_be_folder(*entry)) continue;
        order_.push_back(names_.size());
        names_.append(entry->d_name, std::strlen(entry->d_name) + 1);
    }
    const char* names = names_.c_str();
    std::stable_sort(order_.begin(), order_.end(),
                     [names](size_t a, size_t b) { return ::strcoll(names + a, names + b) < 0; });
    return !reader.failed();
}

// Where the last `count` components of a path begin; npos if it has fewer, or for none.
size_t find_last_components(string_view path, long long count) {
    if (count < 1) return string_view::npos;
    size_t slash = path.size();
    for (; count > 0; --count) {
        if (slash == 0) return string_view::npos;
        slash = path.rfind('/', slash - 1);
        if (slash == string_view::npos) return string_view::npos;
    }
    return slash + 1;
}

class Walk {
  public:
    Walk(int depth, Visit visit, void* arg) : depth_(depth), visit_(visit), arg_(arg) {}

    // `before` is the path of the working directory.
    unsigned run(const char* before, const char* dir) {
        WorkingDirectoryKeeper keeper(before, dir);
        enter(nullptr, dir);
        if (!levels_.empty()) keeper.set_moved();
        while (!levels_.empty()) step();
        return sum_;
    }

  private:
    struct Level {
        Fd fd;  // none if the level is far up, or cannot be reached any more
        Identity identity;
        std::string path;
        size_t prefix;  // where in the path the names of its folders begin, or npos
        Listing entries;
    };
    static constexpr size_t kNoLevel = SIZE_MAX;

    void step();
    bool look_at(Level& level, const char* entry);
    const char* name_of(const Level& level, string_view entry);
    bool stand_in_deepest();

    void enter(const Level* parent, const char* name);
    bool try_to_enter(const Level* parent, const char* name);
    Fd open_at(int dir, const char* name, int flags);
    Fd open_entry(int dir, const char* name, bool& is_link);
    bool find_path(const Level* parent, string_view name, bool is_link, std::string& path);
    bool is_inside(const Identity& identity) const;

    void leave();
    static bool reach(Level& level, int dir, const char* path);
    bool drop_descriptors(size_t kept);

    const long long depth_;
    const Visit visit_;
    void* const arg_;
    unsigned sum_ = 0;  // wraps
    std::vector<Level> levels_;
    size_t standing_in_ = kNoLevel;  // the level that is the working directory
    Listing next_entries_;
    char name_[PATH_MAX];
};

void Walk::step() {
    Level& level = levels_.back();
    const char* entry = level.fd ? level.entries.take() : nullptr;
    if (entry == nullptr) return leave();
    if (look_at(level, entry)) enter(&level, entry);
}

// Visits the entry if it is a folder. Whether it may be entered.
bool Walk::look_at(Level& level, const char* entry) {
    struct stat st;
    const auto look = [&] { return ::fstatat(level.fd.get(), entry, &st, 0); };
    if (base::retry(look) != 0 || !S_ISDIR(st.st_mode)) return false;
    if (!is_maildir_folder_at(level.fd.get(), entry)) return false;
    const char* name = name_of(level, entry);
    if (name == nullptr) return false;
    if (!stand_in_deepest()) {
        level.fd.reset();
        return false;
    }
    sum_ += static_cast<unsigned>(visit_(name, &st, arg_));
    return true;
}

// The visitor's name of an entry; nullptr if it would be longer than a path can be.
const char* Walk::name_of(const Level& level, string_view entry) {
    base::BoundedText name(name_, sizeof name_);
    if (level.prefix != string_view::npos) {
        name << string_view(level.path).substr(level.prefix) << '/';
    }
    name << entry;
    return name.cut() ? nullptr : name.c_str();
}

bool Walk::stand_in_deepest() {
    const size_t deepest = levels_.size() - 1;
    if (standing_in_ == deepest) return true;
    const bool moved = move_to(levels_[deepest].fd);
    standing_in_ = moved ? deepest : kNoLevel;
    return moved;
}

// Makes a directory the deepest level, or leaves it out if it cannot be entered. Without a parent
// it is the top.
void Walk::enter(const Level* parent, const char* name) {
    base::no_throw(false, [=, this] { return try_to_enter(parent, name); });
}

bool Walk::try_to_enter(const Level* parent, const char* name) {
    bool is_link = true;
    Level level;
    level.fd = parent == nullptr ? open_at(AT_FDCWD, name, kToRead)
                                 : open_entry(parent->fd.get(), name, is_link);
    if (!level.fd || !next_entries_.read(level.fd.get()) || next_entries_.empty()) return false;
    if (!identify(level.fd.get(), level.identity) || is_inside(level.identity)) return false;
    standing_in_ = kNoLevel;
    if (!move_to(level.fd)) return false;
    if (!find_path(parent, name, is_link, level.path)) return false;
    const auto above = static_cast<long long>(levels_.size());
    level.prefix = find_last_components(level.path, depth_ - 1 + above);
    level.entries = std::exchange(next_entries_, {});
    levels_.push_back(std::move(level));
    standing_in_ = levels_.size() - 1;
    drop_descriptors(kOpenLevels);
    return true;
}

Fd Walk::open_at(int dir, const char* name, int flags) {
    const auto open = [=] { return ::openat(dir, name, flags); };
    Fd fd(base::retry(open));
    // Descriptors that are only kept for speed are given up before a folder is.
    if (!fd && errno == EMFILE && drop_descriptors(1)) fd.reset(base::retry(open));
    return fd;
}

// Opens an entry and says whether it is a link, whatever it was when it was listed.
Fd Walk::open_entry(int dir, const char* name, bool& is_link) {
    Fd fd = open_at(dir, name, kToRead | O_NOFOLLOW);
    is_link = !fd && (errno == ENOTDIR || errno == ELOOP);
    return is_link ? open_at(dir, name, kToRead) : std::move(fd);
}

// The real path of the directory that the process has just moved to.
bool Walk::find_path(const Level* parent, string_view name, bool is_link, std::string& path) {
    if (is_link) {
        char asked[PATH_MAX];
        if (!get_working_directory(asked)) return false;
        path = asked;
    } else {
        const string_view above = parent->path;
        path = base::concat({above == "/" ? "" : above, "/", name});
    }
    return path.size() < PATH_MAX;
}

bool Walk::is_inside(const Identity& identity) const {
    return std::any_of(levels_.begin(), levels_.end(),
                       [&](const Level& level) { return level.identity == identity; });
}

// Ends the deepest level. The level above it becomes the deepest again.
void Walk::leave() {
    const Fd child = std::move(levels_.back().fd);
    levels_.pop_back();
    if (standing_in_ == levels_.size()) standing_in_ = kNoLevel;
    if (levels_.empty() || levels_.back().fd) return;
    Level& level = levels_.back();
    if (!reach(level, child.get(), "..")) reach(level, AT_FDCWD, level.path.c_str());
}

// Opens a level again, but only if it is still the same directory.
bool Walk::reach(Level& level, int dir, const char* path) {
    Fd fd(base::retry([=] { return ::openat(dir, path, kToReach); }));
    Identity identity;
    if (!fd || !identify(fd.get(), identity) || identity != level.identity) return false;
    level.fd = std::move(fd);
    return true;
}

// Closes the descriptors of all levels but the deepest `kept`. Whether there were any.
bool Walk::drop_descriptors(size_t kept) {
    bool any = false;
    for (size_t i = levels_.size(); i > kept; --i) {
        Fd& fd = levels_[i - 1 - kept].fd;
        if (!fd) break;
        fd.reset();
        any = true;
    }
    return any;
}

}  // namespace

}  // namespace Tessaly::maildir

int tsl_visit_folders(const char* dir, int depth,
                      int (*visit)(const char* name, const struct stat* st, void* arg), void* arg) {
    if (dir == nullptr || visit == nullptr) return 0;
    char before[PATH_MAX];
    if (!Tessaly::maildir::get_working_directory(before)) return 0;
    return static_cast<int>(Tessaly::maildir::Walk(depth, visit, arg).run(before, dir));
}
