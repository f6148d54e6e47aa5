// The scan cache in both its forms: one line, read as a whole, and two lines, read line by line.
#include "mailsize/cache.h"

#include <fcntl.h>
#include <sched.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <string_view>

#include "base/fd.h"
#include "base/io.h"
#include "base/store_file.h"
#include "base/store_names.h"
#include "base/text.h"
#include "mailsize/folder_path.h"
#include "mailsize/number.h"
#include "mailsize/piece_reader.h"

namespace Tessaly::mailsize {

namespace {

constexpr std::string_view kMtime = "mtime=";
constexpr std::string_view kSize = "size=";
// A longer line of the two-line form is read in pieces of this many bytes.
constexpr std::size_t kCachePiece = 127;
// A longer file is not a cache: no writer makes one, and reading it again and again takes time.
constexpr off_t kLongestCache = 65536;

// The bytes of a file one after the other, for scan_number.
class FileCursor {
  public:
    explicit FileCursor(int fd) : fd_(fd) {}
    // The byte here, 0 at the end of the file and on an error.
    int peek() {
        if (position_ == filled_ && !fill()) return 0;
        return static_cast<unsigned char>(buffer_[position_]);
    }
    void advance() { ++position_; }
    bool failed() const { return failed_; }

  private:
    bool fill() {
        const ssize_t n =
            base::retry([&] { return ::pread(fd_, buffer_, sizeof buffer_, offset_); });
        failed_ = failed_ || n < 0 || offset_ + n > kLongestCache;
        if (failed_) return false;
        position_ = 0;
        filled_ = n > 0 ? static_cast<std::size_t>(n) : 0;
        offset_ += static_cast<off_t>(filled_);
        return filled_ > 0;
    }

    int fd_;
    bool failed_ = false;
    off_t offset_ = 0;
    std::size_t position_ = 0;
    std::size_t filled_ = 0;
    char buffer_[128];
};

// Looks until several looks in a row find the same, or one fails. A file that does not come to rest
// counts as empty. There is no lock, so a read beside writers may see the bytes of one text up to
// the length of another, or one text over another.
template <class Look, class Found>
Found settled(Found found, Look look) {
    constexpr int kLooks = 100, kAlike = 3;
    for (int i = 0, alike = 0; i < kLooks && !found.failed; ++i) {
        const Found again = look();
        alike = again == found ? alike + 1 : 0;
        if (alike == kAlike) return found;
        found = again;
        // A writer that was stopped between a text and its end goes on.
        if (i > 0) ::sched_yield();
    }
    return {};
}

// Steps over exactly this text.
bool skip(FileCursor& in, std::string_view text) {
    for (const char c : text) {
        if (in.peek() != c) return false;
        in.advance();
    }
    return true;
}

struct OneLine {
    long mtime = 0;
    unsigned long size = 0;
    bool complete = false;
    bool failed = false;
    bool operator==(const OneLine&) const = default;
};

OneLine look_for_one_line(int fd) {
    FileCursor in(fd);
    Number mtime, size;
    if (skip(in, kMtime)) mtime = scan_number(in);
    if (mtime.found && skip(in, ",") && skip(in, kSize)) size = scan_number(in);
    return {static_cast<long>(mtime.as_signed()), static_cast<unsigned long>(size.as_unsigned()),
            size.found, in.failed()};
}

base::Fd open_to_read(const char* path) {
    return path == nullptr ? base::Fd() : base::open_for_reading(path);
}

// In append mode the texts of several writers stand one behind another until the last writer begins
// again, so a reader finds a whole text at the beginning. Otherwise one text could lie over
// another.
base::Fd open_emptied(const char* path) {
    constexpr int kReplace = O_WRONLY | O_CREAT | O_TRUNC | O_APPEND;
    return path == nullptr ? base::Fd() : base::open_for_writing(path, kReplace);
}

// Stores the number behind a field's name, if both are in the line.
void take_field(std::string_view line, std::string_view name, Fields fields, long& value) {
    const auto at = line.find(name);
    if (at == line.npos || (at != 0 && fields == Fields::at_start)) return;
    TextCursor cursor(line.substr(at + name.size()));
    const Number number = scan_number(cursor);
    if (number.found) value = static_cast<long>(number.as_signed());
}

struct FoundFields {
    ScanCache cache;
    bool read_once = false;
    bool failed = false;
    bool operator==(const FoundFields&) const = default;
};

FoundFields look_for_fields(int fd, Fields fields) {
    FoundFields found;
    auto& [mtime, size] = found.cache;
    PieceReader reader(fd, kCachePiece, kLongestCache);
    while (mtime == 0 || size == 0) {
        const std::string_view piece = reader.next();
        if (piece.empty()) break;
        const std::string_view line = piece.substr(0, piece.find('\0'));
        take_field(line, kMtime, fields, mtime);
        take_field(line, kSize, fields, size);
    }
    found.read_once = reader.read_once();
    found.failed = reader.failed();
    return found;
}

}  // namespace

ScanCache read_scan_cache(const char* folder, Fields fields) {
    FolderPath path(folder, names::kScanCache);
    const base::Fd file = open_to_read(path.cut() ? nullptr : path.c_str());
    if (!file) return {};
    const auto look = [&] { return look_for_fields(file.get(), fields); };
    FoundFields found = look();
    if (!found.read_once) found = settled(found, look);  // lines within one read are whole
    return found.failed ? ScanCache{} : found.cache;
}

void write_scan_cache(const char* folder, long mtime, long long size) {
    FolderPath path(folder, names::kScanCache);
    const base::Fd file = open_emptied(path.cut() ? nullptr : path.c_str());
    if (!file) return;
    char buffer[64];  // two numbers of at most 20 characters and their names
    base::BoundedText text(buffer, sizeof buffer);
    text << kMtime << mtime << '\n' << kSize << size << '\n';
    base::replace_content(file.get(), text.view());
}

}  // namespace Tessaly::mailsize

using namespace Tessaly::mailsize;
namespace base = Tessaly::base;

int tsl_get_maildir_cache_file(const char* dir, char* buf, int bufsize) {
    if (dir == nullptr || buf == nullptr || bufsize < 1) return -1;
    const std::string_view folder = dir;
    base::BoundedText path(buf, static_cast<std::size_t>(bufsize));
    path << folder << (folder.ends_with('/') ? "" : "/") << Tessaly::names::kScanCache;
    path.c_str();
    buf[bufsize - 1] = '\0';
    return static_cast<int>(path.view().size());
}

int tsl_write_maildir_cache_file(const char* path, long mtime, unsigned long size) {
    const base::Fd file = open_emptied(path);
    if (!file) return 0;
    char buffer[64];  // two numbers of at most 20 characters and their names
    base::BoundedText text(buffer, sizeof buffer);
    text << kMtime << mtime << ',' << kSize << size;
    return base::replace_content(file.get(), text.view()) ? 1 : 0;
}

int tsl_read_maildir_cache_file(const char* path, long* mtime, unsigned long* size) {
    const base::Fd file = open_to_read(path);
    if (!file) return 0;
    const auto look = [&] { return look_for_one_line(file.get()); };
    const OneLine cache = settled(look(), look);
    if (!cache.complete) return 0;
    if (mtime != nullptr) *mtime = cache.mtime;
    if (size != nullptr) *size = cache.size;
    return 1;
}
