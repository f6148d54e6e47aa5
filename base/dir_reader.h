// DirReader - the entries of an open directory, read in large pieces without allocation.
#ifndef TSMAIL_BASE_DIR_READER_H
#define TSMAIL_BASE_DIR_READER_H

#include <dirent.h>
#include <unistd.h>

#include <cstddef>

#include "base/fd.h"

namespace Tessaly::base {

inline bool is_dot_or_dotdot(const char* name) {
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// Reads from the descriptor's present offset on. An entry is valid until the next call of next().
// The buffer (32 KiB, as in the C library) lies inside the object, so a stack should hold one
// reader at a time, not one for each level of a tree.
class DirReader {
  public:
    explicit DirReader(int fd) : fd_(fd) {}

    // The next entry ("." and ".." included), or nullptr at the end or on an error (see failed()).
    const dirent64* next() {
        if (position_ >= filled_ && !fill()) return nullptr;
        auto* entry = reinterpret_cast<const dirent64*>(buffer_ + position_);
        position_ += entry->d_reclen;
        return entry;
    }
    // The next entry that is neither "." nor "..".
    const dirent64* next_real() {
        const dirent64* entry = next();
        while (entry != nullptr && is_dot_or_dotdot(entry->d_name)) entry = next();
        return entry;
    }

    // Whether an error, which is in errno, and not the directory's end ended the reading.
    bool failed() const { return failed_; }
    // Starts again from the beginning. If that fails, the reading has failed.
    void rewind() {
        position_ = filled_ = 0;
        failed_ = ::lseek(fd_, 0, SEEK_SET) != 0;
    }

  private:
    bool fill() {
        if (failed_) return false;
        const ssize_t n = retry([this] { return ::getdents64(fd_, buffer_, sizeof buffer_); });
        failed_ = n < 0;
        position_ = 0;
        filled_ = n > 0 ? static_cast<std::size_t>(n) : 0;
        return filled_ > 0;
    }

    int fd_;
    bool failed_ = false;
    std::size_t position_ = 0;
    std::size_t filled_ = 0;
    alignas(dirent64) char buffer_[32768];
};

}  // namespace Tessaly::base

#endif
