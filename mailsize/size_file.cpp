#include "mailsize/size_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <optional>
#include <utility>

#include "base/guard.h"
#include "base/io.h"
#include "base/store_file.h"
#include "mailsize/piece_reader.h"
#include "mailsize/write_whole.h"

namespace Tessaly::mailsize {

namespace {

using std::string_view;

// The kernel copies a page whole. A file that is longer than one is compacted by the next append.
constexpr off_t kPage = 4096;
static_assert(kPage < PieceReader::kBuffer,
              "readers see a file that is not compacted yet in one state");
// The first line of a compacted .maildirsize: no quota is kept in the file.
constexpr string_view kHeader = "0S, 0C\n";

// Calls visit(record) for each record, up to one for which it answers false. Where the last piece
// that was read begins; -1, with errno, if the file cannot be read to its end.
template <class Visit>
off_t each_record(PieceReader& reader, Visit visit) {
    for (string_view piece = reader.next(); !piece.empty(); piece = reader.next()) {
        const auto record = parse_record(piece);
        if (record && !visit(*record)) break;
    }
    return reader.failed() ? -1 : reader.piece_offset();
}

// Addition that wraps; a compaction has no way to report an overflow.
long long wrapping_sum(long long a, long long b) {
    return static_cast<long long>(static_cast<unsigned long long>(a) +
                                  static_cast<unsigned long long>(b));
}

bool add(const ParsedRecord& record, Totals& totals) {
    return !record.out_of_range &&
           !__builtin_add_overflow(totals.size, record.size, &totals.size) &&
           !__builtin_add_overflow(totals.count, record.count, &totals.count);
}

}  // namespace

Totals read_totals(const base::LockedStream& file) {
    Totals totals;
    bool fits = true;
    PieceReader reader(file, kRecordPiece);
    const off_t end = each_record(reader, [&](const ParsedRecord& record) {
        fits = add(record, totals);
        return fits;
    });
    if (end < 0 || !fits) return {{}, true};
    totals.damaged = totals.size < 0 || totals.count < 0;
    return totals;
}

SizeFile::SizeFile(const char* path, Kind kind) : path_(path), kind_(kind), stream_(path, "a+") {
    if (!stream_) return;
    struct stat st;
    if (::fstat(fd(), &st) == 0) {
        length_ = st.st_size;
        identified_ = true;
        device_ = st.st_dev;
        inode_ = st.st_ino;
        return;
    }
    std::FILE* stream = stream_.get();
    length_ = ::fseeko(stream, 0, SEEK_END) == 0 ? ::ftello(stream) : -1;
    ::fseeko(stream, 0, SEEK_SET);
}

// A compaction that fails is left to the next append.
bool SizeFile::append(const Record& record) {
    if (length_ > kPage && compact(record)) return true;
    return write_whole(stream_, RecordText(record).view(), length_);
}

bool SizeFile::replace(const Record& record) {
    off_t last_line = 0;
    if (length_ > kPage) {
        PieceReader reader(fd(), kRecordPiece);
        last_line = each_record(reader, [](const Record&) { return true; });
    }
    return last_line >= 0 && replace_text(text_of(record).view(), last_line);
}

bool SizeFile::is_replaced_at_once() const { return length_ >= 0 && length_ <= kPage; }

bool SizeFile::holds_only(const Record& record) const {
    const RecordText text = text_of(record);
    char there[RecordText::kRoom + 1];
    const ssize_t n = base::pread_full(fd(), there, text.view().size() + 1, 0);
    return n >= 0 && text.view() == string_view(there, static_cast<std::size_t>(n));
}

RecordText SizeFile::text_of(const Record& record) const {
    return RecordText(record, kind_ == Kind::mailbox ? kHeader : string_view());
}

// Replaces the file's records and the new one by their sum.
bool SizeFile::compact(Record sum) {
    PieceReader reader(fd(), kRecordPiece);
    const off_t last_line = each_record(reader, [&sum](const Record& record) {
        sum.size = wrapping_sum(sum.size, record.size);
        sum.count = wrapping_sum(sum.count, record.count);
        return true;
    });
    if (last_line < 0) return false;
    return base::no_throw(false, [&] { return replace_text(text_of(sum).view(), last_line); });
}

// The same file once more, to write anywhere in it. Taking the first descriptor out of append mode
// is not enough: file systems over a network append what is written through a descriptor that was
// opened to append. Nothing, with errno, if the path leads elsewhere by now.
base::Fd SizeFile::open_to_overwrite() const {
    base::Fd fd = base::off_standard(base::open_for_writing(path_, O_WRONLY));
    struct stat st;
    if (!fd || ::fstat(fd.get(), &st) != 0) return {};
    if (identified_ && st.st_dev == device_ && st.st_ino == inode_) return fd;
    errno = ESTALE;
    return {};
}

// What is written over the file before the rest of it is cut off: the text, then line ends up to
// the old text's end, all in one write. Of a file that has outgrown a page, the last line stays,
// which a '#' in front of it makes no record; so the write stays within the page in which that line
// begins, if the file has just outgrown it.
std::string SizeFile::cover(string_view text, off_t last_line) const {
    const bool within_page = length_ <= kPage;
    const auto end =
        static_cast<std::size_t>(std::max<off_t>(within_page ? length_ : last_line, 0));
    std::string over(text);
    over.resize(std::max(text.size() + (within_page ? 0 : 1), end), '\n');
    if (!within_page) over.back() = '#';
    return over;
}

// Puts the text in the place of the file's text. Whenever the process is killed, the file sums to
// its old or to its new value: the kernel copies a page whole. A file that is longer than a page
// and one line, as a failed compaction leaves it, has no such promise.
bool SizeFile::replace_text(string_view text, off_t last_line) {
    const std::string over = cover(text, last_line);
    std::string old(over.size(), '\0');
    const ssize_t old_length = base::pread_full(fd(), old.data(), old.size(), 0);
    if (old_length < 0) return false;
    old.resize(static_cast<std::size_t>(old_length));

    const base::Fd file = open_to_overwrite();
    if (!file) return false;
    const auto cut = [&file](off_t length) {
        base::retry([&] { return ::ftruncate(file.get(), length); });
    };
    if (!base::pwrite_all(file.get(), over, 0)) {
        const int error = errno;
        base::pwrite_all(file.get(), old, 0);  // a part may have been written
        if (old.size() < over.size()) cut(old_length);
        errno = error;
        return false;
    }
    // Line ends that stay do no harm.
    if (length_ > static_cast<off_t>(text.size())) cut(static_cast<off_t>(text.size()));
    return true;
}

}  // namespace Tessaly::mailsize
