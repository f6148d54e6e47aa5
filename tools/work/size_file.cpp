#include "tools/work/size_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <tessaly/support.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string_view>

#include "tools/cli/descriptors.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"

namespace Tessaly::tool {

namespace {

using std::string;
using std::string_view;
using Stream = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

constexpr KeptTotal kDamaged = {0, 0, true};
// A line longer than this is several, for every program that reads these files.
constexpr std::size_t kLine = 254;

Stream open_locked(const string& path, const char* mode) {
    return {::open_and_lock_file(path.c_str(), mode), ::close_and_unlock_file};
}

bool read_all(int fd, string& text) {
    char piece[8192];
    for (;;) {
        const auto at = static_cast<off_t>(text.size());
        const ssize_t n = retry([&] { return ::pread(fd, piece, sizeof piece, at); });
        if (n < 0) return false;
        text.append(piece, static_cast<std::size_t>(n));
        if (static_cast<std::size_t>(n) < sizeof piece) return true;
    }
}

bool write_all(int fd, string_view text) {
    for (off_t at = 0; !text.empty();) {
        const ssize_t n = retry([&] { return ::pwrite(fd, text.data(), text.size(), at); });
        if (n < 0) return false;
        at += n;
        text.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

// Adds a line's record, if it is one. False if that is damage.
bool add_line(string_view line, KeptTotal& total) {
    char text[kLine + 1];
    text[line.copy(text, kLine)] = '\0';
    char *first_end = text, *end = text;
    errno = 0;
    const long long bytes = std::strtoll(text, &first_end, 10);
    const long long messages = std::strtoll(first_end, &end, 10);
    if (first_end == text || end == first_end) return true;
    return errno == 0 && !__builtin_add_overflow(total.bytes, bytes, &total.bytes) &&
           !__builtin_add_overflow(total.messages, messages, &total.messages);
}

KeptTotal sum_of(string_view text) {
    KeptTotal total;
    while (!text.empty()) {
        const string_view line = text.substr(0, std::min(text.find('\n'), kLine - 1) + 1);
        if (!add_line(line, total)) return kDamaged;
        text.remove_prefix(line.size());
    }
    return total.bytes < 0 || total.messages < 0 ? kDamaged : total;
}

FileStamp stamp_of(const struct stat& st) {
    return st.st_size == 0 ? FileStamp() : FileStamp{st.st_size, st.st_mtim};
}

// The file of a descriptor that appends once more, to write anywhere in it. Taking the first one
// out of append mode is not enough: file systems over a network append what is written through a
// descriptor that was opened to append. Nothing, with errno, if the path leads elsewhere by now.
Fd open_to_overwrite(const string& path, int appending) {
    constexpr int kFlags = O_WRONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    Fd fd(retry([&] { return ::open(path.c_str(), kFlags); }));
    struct stat locked, opened;
    if (!fd || ::fstat(appending, &locked) != 0 || ::fstat(fd.get(), &opened) != 0) return {};
    if (locked.st_dev == opened.st_dev && locked.st_ino == opened.st_ino) return fd;
    errno = ESTALE;
    return {};
}

// Puts `text` in the place of `old`. One write covers all of the old text, the rest of it with line
// ends, which are cut off then: a process that is killed leaves a file of the old or the new total,
// if the old one was no longer than a page, which the kernel copies whole. (A longer one is the
// marker's business, which the caller sets before.) Bytes that are there already need no room on
// the disk.
bool replace(int fd, const string& old, const string& text) {
    string over = text;
    over.resize(std::max(over.size(), old.size()), '\n');
    if (!write_all(fd, over)) {
        const int error = errno;
        write_all(fd, old);
        retry([&] { return ::ftruncate(fd, static_cast<off_t>(old.size())); });
        errno = error;
        return false;
    }
    // Line ends that stay do no harm.
    if (over.size() > text.size()) {
        retry([&] { return ::ftruncate(fd, static_cast<off_t>(text.size())); });
    }
    return true;
}

}  // namespace

string folder_size_file(const string& folder) { return string(folder).append("/.ts_folder_size"); }

string mailbox_size_file(const TSMailUserId& id) { return id.mailpath().append("/.maildirsize"); }

void add(KeptTotal& sum, const KeptTotal& more) {
    if (__builtin_add_overflow(sum.bytes, more.bytes, &sum.bytes)) sum.bytes = LLONG_MAX;
    if (__builtin_add_overflow(sum.messages, more.messages, &sum.messages)) {
        sum.messages = LLONG_MAX;
    }
}

std::optional<KeptTotal> kept_total(const string& path) {
    const Stream stream = open_locked(path, "r");
    if (!stream) return errno == ENOENT ? std::nullopt : std::optional(kDamaged);
    string text;
    return read_all(::fileno(stream.get()), text) ? sum_of(text) : kDamaged;
}

FileStamp stamp_of(const string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? stamp_of(st) : FileStamp();
}

SizeFile::SizeFile(string path, Kind kind)
    : path_(std::move(path)), kind_(kind), stream_(open_locked(path_, "a+")) {
    if (stream_ && read_all(::fileno(stream_.get()), text_)) return;
    throw system_failure(printable(path_));
}

FileStamp SizeFile::stamp() const {
    struct stat st;
    if (::fstat(::fileno(stream_.get()), &st) != 0) throw system_failure(printable(path_));
    return stamp_of(st);
}

KeptTotal SizeFile::total() const { return sum_of(text_); }

string SizeFile::text_of(const KeptTotal& total) const {
    // No quota is kept in the file.
    const char* header = kind_ == Kind::mailbox ? "0S, 0C\n" : "";
    return fmt::format("{}{} {}\n", header, total.bytes, total.messages);
}

void SizeFile::rewrite(const KeptTotal& total) {
    const string text = text_of(total);
    const Fd fd = open_to_overwrite(path_, ::fileno(stream_.get()));
    if (!fd || !replace(fd.get(), text_, text)) throw system_failure(printable(path_));
    text_ = text;
}

}  // namespace Tessaly::tool
