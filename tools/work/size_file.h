// Size record files, read and rewritten as a whole. (Adding to one is the library's: records.h.)
#ifndef TSMAIL_TOOLS_WORK_SIZE_FILE_H
#define TSMAIL_TOOLS_WORK_SIZE_FILE_H

#include <sys/types.h>
#include <tessaly/MailUserId.h>

#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>
#include <string>

namespace Tessaly::tool {

std::string folder_size_file(const std::string& folder);
std::string mailbox_size_file(const TSMailUserId& id);

// What a size record file says.
struct KeptTotal {
    long long bytes = 0;
    long long messages = 0;
    // The file cannot be read, a number or a sum does not fit 64 bits, or a sum is negative. Both
    // numbers are 0 then.
    bool damaged = false;
    bool operator==(const KeptTotal&) const = default;
};

// Adds, up to the largest number.
void add(KeptTotal& sum, const KeptTotal& more);

// Reads a file under its lock; changes nothing, whatever is in it. Nothing if there is no such
// file.
std::optional<KeptTotal> kept_total(const std::string& path);

// What tells a file that was appended to from the one before: its length, or, if others rewrite it,
// at least the time. A missing file is as good as an empty one, and an empty one never the result
// of an append.
struct FileStamp {
    off_t length = 0;
    timespec written = {0, 0};
    bool operator==(const FileStamp& other) const {
        return length == other.length && written.tv_sec == other.written.tv_sec &&
               written.tv_nsec == other.written.tv_nsec;
    }
};
FileStamp stamp_of(const std::string& path);

// A size record file under its exclusive lock, created if missing.
class SizeFile {
  public:
    enum class Kind { folder, mailbox };
    // A Failure if it cannot be opened or read.
    SizeFile(std::string path, Kind kind);

    bool empty() const { return text_.empty(); }
    FileStamp stamp() const;
    KeptTotal total() const;

    // Whether the file holds just this total, as a compaction leaves it.
    bool is_exactly(const KeptTotal& total) const { return text_ == text_of(total); }
    // Leaves the file so. A Failure, and the file as it was, if it cannot be written.
    void rewrite(const KeptTotal& total);

  private:
    std::string text_of(const KeptTotal& total) const;

    std::string path_;
    Kind kind_;
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream_;
    std::string text_;
};

}  // namespace Tessaly::tool

#endif
