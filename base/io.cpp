#include "base/io.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "base/fd.h"

namespace Tessaly::base {

namespace {

constexpr std::size_t kChunk = 65536;

// The write loop: write_some(rest, done) writes a part and returns its length.
template <class WriteSome>
bool write_loop(std::string_view text, WriteSome write_some) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = retry([&] { return write_some(text.substr(done), done); });
        if (n < 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

bool is_longer(int fd, std::size_t length) {
    struct stat st;
    return ::fstat(fd, &st) == 0 && st.st_size > static_cast<off_t>(length);
}

bool make_empty(int fd) {
    return retry([=] { return ::ftruncate(fd, 0); }) == 0;
}

}  // namespace

bool write_all(int fd, std::string_view text) {
    return write_loop(text, [fd](std::string_view rest, std::size_t) {
        return ::write(fd, rest.data(), rest.size());
    });
}

bool pwrite_all(int fd, std::string_view text, off_t offset) {
    return write_loop(text, [fd, offset](std::string_view rest, std::size_t done) {
        return ::pwrite(fd, rest.data(), rest.size(), offset + static_cast<off_t>(done));
    });
}

bool replace_content(int fd, std::string_view text) {
    // Another process may have written since the file was emptied, so that there is more than this
    // text. The last writer sees that and begins again. The limit guards against a process that
    // makes the file grow all the time.
    constexpr int kAttempts = 100;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (!pwrite_all(fd, text, 0)) {
            const int saved = errno;
            make_empty(fd);
            errno = saved;
            return false;
        }
        if (!is_longer(fd, text.size())) return true;
        if (!make_empty(fd)) return false;
    }
    errno = EBUSY;
    return false;
}

ssize_t pread_full(int fd, char* buffer, std::size_t room, off_t offset) {
    std::size_t have = 0;
    while (have < room) {
        const ssize_t n = retry([&] {
            return ::pread(fd, buffer + have, room - have, offset + static_cast<off_t>(have));
        });
        if (n < 0) return -1;
        if (n == 0) break;
        have += static_cast<std::size_t>(n);
    }
    return static_cast<ssize_t>(have);
}

bool read_file(int fd, std::string& text) {
    for (off_t offset = 0;;) {
        const std::size_t had = text.size();
        text.resize(had + kChunk);
        const ssize_t n = pread_full(fd, text.data() + had, kChunk, offset);
        text.resize(had + static_cast<std::size_t>(n > 0 ? n : 0));
        if (n < 0) return false;
        if (n < static_cast<ssize_t>(kChunk)) return true;
        offset += n;
        if (offset < kLongestFile) continue;
        errno = EFBIG;
        return false;
    }
}

}  // namespace Tessaly::base
