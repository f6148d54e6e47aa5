#include "tools/work/spool_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <iterator>
#include <utility>
#include <vector>

#include "base/io.h"
#include "tools/cli/failure.h"

namespace Tessaly::tool {

namespace {

using std::string;

constexpr mode_t kMessageMode = 0600;
// Names of one process differ by time and by one of a million numbers. If so many names in a row
// are in use, something else is wrong.
constexpr int kDraws = 100;
constexpr char kOwnDescriptors[] = "/proc/self/fd";

template <class... Errors>
bool is_one_of(int error, Errors... errors) {
    return ((error == errors) || ...);
}

// Whether this process has met a file system that could not name a file without a name. It is the
// process's, as one file tells it for all later ones.
std::atomic<bool>& only_named() {
    static std::atomic<bool> only = false;
    return only;
}

void copy_all(int from, int to) {
    constexpr std::size_t kPiece = 65536;
    std::vector<char> piece(kPiece);
    for (off_t at = 0;;) {
        const ssize_t n = base::pread_full(from, piece.data(), kPiece, at);
        if (n == 0) return;
        const std::string_view text(piece.data(),
                                    static_cast<std::size_t>(std::max(n, ssize_t{0})));
        if (n < 0 || !base::write_all(to, text)) throw system_failure("writing below tmp");
        at += n;
    }
}

}  // namespace

SpoolFile::SpoolFile(int tmp, string queue_id) : tmp_(tmp), queue_id_(std::move(queue_id)) {
    if (!open_unnamed()) open_named();
}

SpoolFile::~SpoolFile() {
    if (!name_.empty()) ::unlinkat(tmp_, name_.c_str(), 0);
}

// False if the file system has no unnamed files, or such a file could not get a name later.
bool SpoolFile::open_unnamed() {
    if (only_named() || ::access(kOwnDescriptors, X_OK) != 0) return false;
    fd_.reset(
        retry([&] { return ::openat(tmp_, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, kMessageMode); }));
    if (fd_) return true;
    if (is_one_of(errno, EOPNOTSUPP, EISDIR, EINVAL, ENOSYS)) return false;
    throw system_failure("writing below tmp");
}

void SpoolFile::open_named() {
    for (int draw = 0; draw < kDraws; ++draw) {
        name_ = draw_name(0);
        fd_.reset(retry([&] {
            return ::openat(tmp_, name_.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC,
                            kMessageMode);
        }));
        if (fd_) return;
        name_.clear();  // a file with this name is not this process's
        if (errno != EEXIST) break;
    }
    throw system_failure("writing below tmp");
}

string SpoolFile::draw_name(unsigned long long size) const {
    char name[NAME_MAX + 1];
    if (tsl_gen_mail_unique_name(size, queue_id_.c_str(), name, sizeof name) == nullptr) {
        throw system_failure("drawing a message name", ENOMEM);
    }
    return name;
}

string SpoolFile::appear(int fresh, unsigned long long size) {
    for (int draw = 0; draw < kDraws; ++draw) {
        string name = draw_name(size);
        if (appear_at(fresh, name)) return name;
        if (errno != EEXIST) break;
    }
    throw system_failure("putting the message into new");
}

bool SpoolFile::appear_as(int directory, const string& name) {
    if (appear_at(directory, name)) return true;
    if (errno == EEXIST) return false;
    throw system_failure("putting the message into its folder");
}

bool SpoolFile::appear_at(int directory, const string& name) {
    if (!name_.empty()) return move_name(directory, name);
    if (give_name(directory, name)) return true;
    if (!is_one_of(errno, EOPNOTSUPP, EINVAL, ENOSYS, ENOENT)) return false;
    only_named() = true;
    copy_to_named();
    return move_name(directory, name);
}

bool SpoolFile::give_name(int directory, const string& name) const {
    const string path = fmt::format("{}/{}", kOwnDescriptors, fd_.get());
    return ::linkat(AT_FDCWD, path.c_str(), directory, name.c_str(), AT_SYMLINK_FOLLOW) == 0;
}

void SpoolFile::copy_to_named() {
    const Fd unnamed = std::move(fd_);
    open_named();
    copy_all(unnamed.get(), fd_.get());
    if (retry([&] { return ::fsync(fd_.get()); }) != 0) throw system_failure("writing below tmp");
}

bool SpoolFile::move_name(int directory, const string& name) {
    const bool moved = base::move_new(tmp_, name_.c_str(), directory, name.c_str());
    if (moved) name_.clear();
    return moved;
}

}  // namespace Tessaly::tool
