#include "base/tree.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstring>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "base/dir_reader.h"
#include "base/fd.h"
#include "base/guard.h"

namespace Tessaly::base {

namespace {

// The number of levels of a tree that are kept open. Those above are reached again by "..".
constexpr std::size_t kOpenLevels = 32;

bool is_not_empty(int error) { return error == ENOTEMPTY || error == EEXIST; }
bool is_out_of_descriptors(int error) { return error == EMFILE || error == ENFILE; }

int error_of(int result) { return result == 0 ? 0 : errno; }

int remove_file(int dirfd, const char* name) {
    return error_of(retry([=] { return ::unlinkat(dirfd, name, 0); }));
}
int remove_directory(int dirfd, const char* name) {
    return error_of(retry([=] { return ::unlinkat(dirfd, name, AT_REMOVEDIR); }));
}
// Like remove(): removes anything but a directory with entries.
int remove_one(int dirfd, const char* name) {
    const int error = remove_file(dirfd, name);
    return error == EISDIR ? remove_directory(dirfd, name) : error;
}

Fd open_directory(int dirfd, const char* name) {
    constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    return Fd(retry([=] { return ::openat(dirfd, name, kFlags); }));
}

// A directory on the path from the top to where the work is.
struct Level {
    explicit Level(Fd opened = {}, std::size_t names = 0)
        : fd(std::move(opened)), names_begin(names) {}
    Fd fd;          // closed while descriptors are short
    dev_t dev = 0;  // valid while closed
    ino_t ino = 0;
    std::size_t names_begin;  // where its names begin in Remover::names_
    unsigned passes = 0;
    bool removed = false;                   // an entry went in this pass
    bool failed = false;                    // an entry could not be removed in this pass
    std::unordered_set<std::string> stuck;  // subdirectories that are not tried again
};

// Works in passes. A pass removes the files of a directory while it reads it, notes the names of
// its subdirectories, and enters them one by one. If the directory is not empty then, the reading
// skipped entries or others came late. It gets further passes as long as each removes something.
class Remover {
  public:
    explicit Remover(int top) : top_(top), levels_(1) {}

    // Makes one pass over the top directory. Whether any entry of it was removed.
    bool pass();
    int first_error() const { return first_error_; }

  private:
    int fd_of(const Level& level) const { return &level == levels_.data() ? top_ : level.fd.get(); }
    const char* last_name() const;
    void drop_name() { names_.resize(static_cast<std::size_t>(last_name() - names_.data())); }

    void scan();
    void take(Level& level, const char* name, bool directory);
    void enter_next();
    void leave();
    void abandon(int error);
    void done_with_child(int error);
    void note(Level& level, int error);

    Fd open_child(const char* name);
    bool close_one();
    bool reopen(std::size_t index);

    int top_;
    int first_error_ = 0;
    std::vector<Level> levels_;   // the top first, which the caller holds open
    std::size_t first_open_ = 1;  // the levels from here on are open, those between are not
    std::string names_;           // subdirectories still to do, each with its NUL, the deepest last
};

bool Remover::pass() {
    scan();
    while (levels_.size() > 1 || !names_.empty()) {
        if (names_.size() > levels_.back().names_begin) {
            enter_next();
        } else {
            leave();
        }
    }
    return levels_.front().removed;
}

const char* Remover::last_name() const {
    const std::size_t end = names_.size() - 1;
    const void* before = ::memrchr(names_.data(), '\0', end);
    return before == nullptr ? names_.data() : static_cast<const char*>(before) + 1;
}

// Reads the deepest level once, from its beginning.
void Remover::scan() {
    Level& level = levels_.back();
    level.removed = level.failed = false;
    DirReader reader(fd_of(level));
    if (level.passes > 0 || levels_.size() == 1) reader.rewind();
    ++level.passes;
    while (const dirent64* entry = reader.next_real()) {
        take(level, entry->d_name, entry->d_type == DT_DIR);
    }
    // ENOENT: another process removed the directory.
    if (reader.failed() && errno != ENOENT) note(level, errno);
}

// Removes an entry that was read, or notes it for later if it is a directory.
void Remover::take(Level& level, const char* name, bool directory) {
    const int error = directory ? EISDIR : remove_file(fd_of(level), name);
    if (error == 0) {
        level.removed = true;
    } else if (error != EISDIR) {
        if (error != ENOENT) note(level, error);
    } else if (!level.stuck.empty() && level.stuck.contains(name)) {
        level.failed = true;
    } else {
        names_.append(name, std::strlen(name) + 1);
    }
}

void Remover::note(Level& level, int error) {
    level.failed = true;
    if (first_error_ == 0) first_error_ = error;
}

// Enters the last name of the deepest level. An empty directory is removed at once. A directory
// that the process may not remove keeps its contents.
void Remover::enter_next() {
    const int refused = remove_directory(fd_of(levels_.back()), last_name());
    if (!is_not_empty(refused) && refused != ENOTDIR) return done_with_child(refused);
    Fd fd = open_child(last_name());
    if (fd) {
        levels_.emplace_back(std::move(fd), names_.size());
        if (levels_.size() - first_open_ > kOpenLevels) close_one();
        return scan();
    }
    // It may be empty by now, or may not be a directory any more.
    const int error = errno;
    const int again = remove_one(fd_of(levels_.back()), last_name());
    done_with_child(is_not_empty(again) ? error : again);
}

// Notes what became of the last name of the deepest level: removed, or the error that kept it.
void Remover::done_with_child(int error) {
    Level& level = levels_.back();
    if (error == 0) {
        level.removed = true;
    } else if (error != ENOENT) {
        note(level, error);
        level.stuck.insert(last_name());
    }
    drop_name();
}

// Goes up from a level whose names are all done, and removes its directory.
void Remover::leave() {
    const std::size_t parent = levels_.size() - 2;
    if (!reopen(parent)) return abandon(errno);
    const int error = remove_directory(fd_of(levels_[parent]), last_name());
    const Level& level = levels_.back();
    const bool once_more = level.removed || (level.passes == 1 && !level.failed);
    if (is_not_empty(error) && once_more) return scan();
    levels_.pop_back();
    done_with_child(error);
}

// Back to the top from a level whose parent is lost; the branch stays.
void Remover::abandon(int error) {
    names_.resize(levels_[1].names_begin);
    levels_.resize(1);
    first_open_ = 1;
    done_with_child(error);
}

Fd Remover::open_child(const char* name) {
    for (;;) {
        Fd fd = open_directory(fd_of(levels_.back()), name);
        if (fd || !is_out_of_descriptors(errno) || !close_one()) return fd;
    }
}

// Closes the open level nearest to the top, unless it is the deepest one.
bool Remover::close_one() {
    const int error = errno;
    if (first_open_ + 1 >= levels_.size()) return false;
    Level& level = levels_[first_open_++];
    struct stat st;
    if (::fstat(level.fd.get(), &st) == 0) {
        level.dev = st.st_dev;
        level.ino = st.st_ino;
    }
    level.fd.reset();
    errno = error;
    return true;
}

// Makes sure that the parent of the deepest level is open. False with errno if that fails, ESTALE
// if the level has another parent by now.
bool Remover::reopen(std::size_t index) {
    if (index == 0 || index >= first_open_) return true;
    Level& level = levels_[index];
    Fd fd = open_directory(levels_.back().fd.get(), "..");
    struct stat st;
    if (!fd || ::fstat(fd.get(), &st) != 0) return false;
    if (st.st_dev != level.dev || st.st_ino != level.ino) {
        errno = ESTALE;
        return false;
    }
    level.fd = std::move(fd);
    first_open_ = index;
    return true;
}

}  // namespace

int empty_directory(int dirfd) noexcept {
    return no_throw(ENOMEM, [=] {
        Remover remover(dirfd);
        while (remover.pass()) {
        }
        return remover.first_error();
    });
}

int remove_tree_at(int dirfd, const char* name) noexcept {
    int error = remove_one(dirfd, name);
    if (!is_not_empty(error)) return error;
    const Fd top = open_directory(dirfd, name);
    if (!top) return remove_one(dirfd, name);
    return no_throw(ENOMEM, [&] {
        Remover remover(top.get());
        bool progress = true;
        while (progress) {
            progress = remover.pass();
            error = remove_directory(dirfd, name);
            progress = progress && is_not_empty(error);
        }
        return error;
    });
}

}  // namespace Tessaly::base
