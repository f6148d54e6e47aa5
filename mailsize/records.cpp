// Size record files: append with compaction, read, replace.
#include <fcntl.h>
#include <sys/stat.h>
#include <tessaly/MailUserId.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <utility>

#include "base/fd.h"
#include "base/guard.h"
#include "base/io.h"
#include "base/locked_stream.h"
#include "base/store_file.h"
#include "base/store_names.h"
#include "base/text.h"
#include "mailsize/dirty.h"
#include "mailsize/folder_path.h"
#include "mailsize/piece_reader.h"
#include "mailsize/record_text.h"
#include "mailsize/write_whole.h"
#include "mailuser/direct.h"

namespace Tessaly::mailsize {

namespace {

using std::string_view;

// A file that is longer than this is compacted by the next append.
constexpr off_t kCompactAbove = 4096;
// The first line of a compacted .maildirsize: no quota is kept in the file.
constexpr string_view kHeader = "0S, 0C\n";

enum class Header { none, when_compacted };

// Addition that wraps; a compaction has no way to report an overflow.
long long wrapping_sum(long long a, long long b) {
    return static_cast<long long>(static_cast<unsigned long long>(a) +
                                  static_cast<unsigned long long>(b));
}

// A size file under its lock: the stream's descriptor appends.
struct LockedFile {
    const char* path;
    int fd;
    off_t length;  // -1 if unknown
    bool identified;
    dev_t device;
    ino_t inode;
};

LockedFile look_at(const char* path, std::FILE* stream) {
    struct stat st;
    if (::fstat(::fileno(stream), &st) == 0) {
        return {path, ::fileno(stream), st.st_size, true, st.st_dev, st.st_ino};
    }
    const off_t end = ::fseeko(stream, 0, SEEK_END) == 0 ? ::ftello(stream) : -1;
    ::fseeko(stream, 0, SEEK_SET);
    return {path, ::fileno(stream), end, false, 0, 0};
}

// The same file once more, to write anywhere in it. Taking the first descriptor out of append mode
// is not enough: file systems over a network append what is written through a descriptor that was
// opened to append. Nothing if the path leads elsewhere by now.
base::Fd open_to_overwrite(const LockedFile& file) {
    if (!file.identified) return {};
    base::Fd fd = base::off_standard(base::open_for_writing(file.path, O_WRONLY));
    struct stat st;
    if (!fd || ::fstat(fd.get(), &st) != 0) return {};
    const bool same = st.st_dev == file.device && st.st_ino == file.inode;
    return same ? std::move(fd) : base::Fd();
}

// Replaces the file's text by `text`, which has the sum of the whole file and the new record. One
// write puts the text at the beginning and line ends behind it up to the last line, which gets a
// '#' in front so that it is not a record. Then the rest is cut off. In a file that has just
// outgrown a page the last line begins within that page. So the write stays within the page, and
// the kernel copies a page whole: whenever the process is killed, the file has the old sum or the
// new one. For a longer file, which a failed compaction leaves, this is not promised. False if the
// old text stands.
bool replace_text(const LockedFile& file, string_view text, off_t last_line) {
    const auto covered = static_cast<std::size_t>(last_line);
    std::string over(text);
    over.resize(std::max(text.size() + 1, covered), '\n');
    over.back() = '#';
    std::string old(over.size(), '\0');
    const ssize_t old_length = base::pread_full(file.fd, old.data(), old.size(), 0);
    if (old_length < 0) return false;
    old.resize(static_cast<std::size_t>(old_length));

    const base::Fd fd = open_to_overwrite(file);
    if (!fd) return false;
    if (!base::pwrite_all(fd.get(), over, 0)) {
        base::pwrite_all(fd.get(), old, 0);  // a part may have been written
        return false;
    }
    base::retry([&] { return ::ftruncate(fd.get(), static_cast<off_t>(text.size())); });
    return true;
}

// Replaces the file's records and the new one by their sum. False if that fails and the file is as
// it was; the next append tries again.
bool compact(const LockedFile& file, Record sum, string_view header) {
    PieceReader reader(file.fd, kRecordPiece);
    for (string_view piece = reader.next(); !piece.empty(); piece = reader.next()) {
        const auto record = parse_record(piece);
        if (!record) continue;
        sum.size = wrapping_sum(sum.size, record->size);
        sum.count = wrapping_sum(sum.count, record->count);
    }
    if (reader.failed()) return false;
    return base::no_throw(false, [&] {
        return replace_text(file, RecordText(sum, header).view(), reader.piece_offset());
    });
}

int append_size_record(const char* path, const Record& record, Header header) {
    const base::LockedStream stream(path, "a+");
    if (!stream) return 0;
    const LockedFile file = look_at(path, stream.get());
    const string_view first_line = header == Header::when_compacted ? kHeader : string_view();
    if (file.length > kCompactAbove && compact(file, record, first_line)) return 0;
    write_whole(stream, RecordText(record).view(), file.length);
    return 0;
}

// The sum of a file's records. Damaged, with the sums 0, if the file cannot be read to its end or a
// number or a sum does not fit 64 bits.
struct Totals : Record {
    bool damaged = false;
    bool add(const ParsedRecord& record) {
        return !record.out_of_range && !__builtin_add_overflow(size, record.size, &size) &&
               !__builtin_add_overflow(count, record.count, &count);
    }
};

Totals read_totals(const base::LockedStream& file) {
    constexpr Totals kDamaged{{}, true};
    Totals totals;
    PieceReader reader(file, kRecordPiece);
    for (string_view piece = reader.next(); !piece.empty(); piece = reader.next()) {
        const auto record = parse_record(piece);
        if (record && !totals.add(*record)) return kDamaged;
    }
    return reader.failed() ? kDamaged : totals;
}

void store(unsigned long long* output, long long total) {
    if (output != nullptr) *output = static_cast<unsigned long long>(std::max(total, 0LL));
}

int read_size_record(const char* path, unsigned long long* size, unsigned long long* count) {
    if (path == nullptr) return 0;
    Totals totals;
    if (base::LockedStream stream(path, "r"); stream) {
        totals = read_totals(stream);
        stream.close_plainly();
    }
    store(size, totals.size);
    store(count, totals.count);
    const bool damaged = totals.damaged || totals.size < 0 || totals.count < 0;
    return damaged && mark_owner_dirty(path) ? -1 : 0;
}

}  // namespace

}  // namespace Tessaly::mailsize

using namespace Tessaly::mailsize;

int tsl_append_maildirsize(const char* path, long long size, long long count) {
    return append_size_record(path, {size, count}, Header::when_compacted);
}

int tsl_append_mail_folder_size(const char* path, long long size, long long count) {
    return append_size_record(path, {size, count}, Header::none);
}

int tsl_read_mail_folder_size(const char* path, unsigned long long* size,
                              unsigned long long* count) {
    if (path == nullptr || ::access(path, F_OK) != 0) return -1;
    return read_size_record(path, size, count);
}

int tsl_get_maildirsize(const void*, const char* maildir, unsigned long long* size,
                        unsigned long long* count) {
    if (maildir == nullptr) return -1;
    if (::access(FolderPath(maildir, Tessaly::names::kDirtyMarker).c_str(), F_OK) == 0) return -1;
    return read_size_record(FolderPath(maildir, Tessaly::names::kMaildirSize).c_str(), size, count);
}

int tsl_write_mail_folder_size(const char* path, long long size, long long count) {
    if (path == nullptr) return 0;
    const Tessaly::base::LockedStream stream(path, "w");
    if (stream) write_whole(stream, RecordText({size, count}).view(), 0);
    return 0;
}

namespace Tessaly {

int TSMailUserId::append_maildirsize(long long size, long long count) const {
    constexpr int kLine = 333;  // part of the exception as callers know it
    if (type_ == MAILBOX_DIRECT) throw_not_implemented("append_maildirsize", kLine);
    const std::string path = base::concat({mailpath(), "/", names::kMaildirSize});
    return tsl_append_maildirsize(path.c_str(), size, count);
}

}  // namespace Tessaly
