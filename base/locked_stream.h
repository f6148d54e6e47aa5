// LockedStream - the one owner of a stream of open_and_lock_file.
#ifndef TSMAIL_BASE_LOCKED_STREAM_H
#define TSMAIL_BASE_LOCKED_STREAM_H

#include <tessaly/support.h>

#include <cstdio>
#include <utility>

namespace Tessaly::base {

// Opens and locks in the constructor, closes and unlocks at the end. The library works on the
// descriptor of such a stream, never on its buffer, so both views of the file agree.
class LockedStream {
  public:
    LockedStream(const char* path, const char* mode) : stream_(::open_and_lock_file(path, mode)) {}
    LockedStream(const LockedStream&) = delete;
    LockedStream& operator=(const LockedStream&) = delete;
    ~LockedStream() { close_and_unlock(); }

    explicit operator bool() const { return stream_ != nullptr; }
    std::FILE* get() const { return stream_; }
    // -1 for a stream of an executable's own open_and_lock_file that has none.
    int fd() const { return ::fileno(stream_); }

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
