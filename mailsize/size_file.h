// SizeFile - a size record file under its lock; read_totals - what an open one says.
#ifndef TSMAIL_MAILSIZE_SIZE_FILE_H
#define TSMAIL_MAILSIZE_SIZE_FILE_H

#include <sys/types.h>

#include <string>
#include <string_view>

#include "base/fd.h"
#include "base/locked_stream.h"
#include "mailsize/record_text.h"

namespace Tessaly::mailsize {

// The sum of a file's records.
struct Totals : Record {
    // The file cannot be read to its end, or a number or a sum does not fit 64 bits; both sums are
    // 0 then. Or a sum is negative.
    bool damaged = false;
    bool operator==(const Totals&) const = default;
};
Totals read_totals(const base::LockedStream& file);

// A file that is open to append, with its exclusive lock, until the object's end.
class SizeFile {
  public:
    enum class Kind { folder, mailbox };

    // Makes the file if it is missing. `path` stays with the caller.
    SizeFile(const char* path, Kind kind);
    // False, with errno, if the file could not be opened.
    explicit operator bool() const { return static_cast<bool>(stream_); }

    int fd() const { return stream_.fd(); }
    Totals totals() const { return read_totals(stream_); }
    // When it was opened; -1 if unknown.
    off_t length() const { return length_; }

    // Adds a record: at the end, or, to a file that has grown beyond a page, by a compaction. False
    // if the file is as it was.
    bool append(const Record& record);
    // Makes this record the file's only one, as a compaction leaves it. False with errno if the
    // file is as it was.
    bool replace(const Record& record);
    // Whether a process that is killed in the middle of a replacement leaves the old or the new
    // sum. A file that has outgrown a page by more than one line has no such promise.
    bool is_replaced_at_once() const;
    // Whether the file is as a replacement with this record leaves it.
    bool holds_only(const Record& record) const;

  private:
    RecordText text_of(const Record& record) const;
    base::Fd open_to_overwrite() const;
    std::string cover(std::string_view text, off_t last_line) const;
    bool replace_text(std::string_view text, off_t last_line);
    bool compact(Record sum);

    const char* path_;
    Kind kind_;
    base::LockedStream stream_;
    off_t length_ = -1;
    bool identified_ = false;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

}  // namespace Tessaly::mailsize

#endif
