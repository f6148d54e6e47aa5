// LockedStream - the one owner of a stream of open_and_lock_file.
#ifndef TSMAIL_BASE_LOCKED_STREAM_H
#define TSMAIL_BASE_LOCKED_STREAM_H

#include <tessaly/support.h>

#include <cstdio>
#include <string_view>
#include <utility>

#include "base/io.h"

namespace Tessaly::base {

// Opens and locks in the constructor, closes and unlocks at the end. The library works on the
// descriptor of the stream and not on its buffer, so that both views of the file agree. An
// executable that defines open_and_lock_file itself may return a stream without a descriptor (fd()
// is -1). The library reads and writes such a stream through its buffer.
class LockedStream {
  public:
    LockedStream(const char* path, const char* mode) : stream_(::open_and_lock_file(path, mode)) {}
    LockedStream(const LockedStream&) = delete;
    LockedStream& operator=(const LockedStream&) = delete;
    ~LockedStream() { close_and_unlock(); }

    explicit operator bool() const { return stream_ != nullptr; }
    std::FILE* get() const { return stream_; }
    int fd() const { return ::fileno(stream_); }

    // Writes all of the text where the stream stands. False with errno if not; a beginning may have
    // been written. Nothing is left in the buffer that the close could lose.
    bool write(std::string_view text) const {
        if (fd() >= 0) return write_all(fd(), text);
        return std::fwrite(text.data(), 1, text.size(), stream_) == text.size() &&
               std::fflush(stream_) == 0;
    }

    bool close_and_unlock() {
        std::FILE* stream = std::exchange(stream_, nullptr);
        return stream == nullptr || ::close_and_unlock_file(stream) == 0;
    }
    // Closes the stream with fclose only, which releases the lock.
    bool close_plainly() {
        std::FILE* stream = std::exchange(stream_, nullptr);
        return stream == nullptr || std::fclose(stream) == 0;
    }

  private:
    std::FILE* stream_;
};

}  // namespace Tessaly::base

#endif
