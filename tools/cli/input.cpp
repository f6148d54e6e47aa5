#include "tools/cli/input.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "tools/cli/failure.h"
#include "tools/cli/text.h"

namespace Tessaly::tool {

namespace {

// Whether the input can be read, or has ended, within this time.
bool wait(const Input& input, int milliseconds) {
    pollfd readable = {input.fd, POLLIN, 0};
    return retry([&] { return ::poll(&readable, 1, milliseconds); }) != 0;
}

// read_some, but waits if the input does not block.
std::size_t wait_and_read(const Input& input, char* buffer, std::size_t room) {
    for (;;) {
        const ssize_t n = read_some(input, buffer, room);
        if (n >= 0) return static_cast<std::size_t>(n);
        wait(input, -1);
    }
}

}  // namespace

Input open_input(const std::string& file) {
    if (file.empty()) return {Fd(), STDIN_FILENO, "standard input"};
    Fd fd(retry([&] { return ::open(file.c_str(), O_RDONLY | O_CLOEXEC); }));
    if (!fd) throw Failure(kExitNoInput, printable(file) + ": " + error_text(errno));
    const int number = fd.get();
    return {std::move(fd), number, printable(file)};
}

ssize_t read_some(const Input& input, char* buffer, std::size_t room) {
    const ssize_t n = retry([&] {
        return input.position != nullptr ? ::pread(input.fd, buffer, room, *input.position)
                                         : ::read(input.fd, buffer, room);
    });
    if (n > 0 && input.position != nullptr) *input.position += n;
    if (n >= 0 || errno == EAGAIN) return n;
    const bool unreadable = errno == EISDIR || errno == EBADF;
    throw Failure(unreadable ? kExitNoInput : kExitIo, input.name + ": " + error_text(errno));
}

std::uint64_t size_of(const Input& input) {
    struct stat st;
    const bool file = ::fstat(input.fd, &st) == 0 && S_ISREG(st.st_mode);
    return file ? static_cast<std::uint64_t>(st.st_size) : 0;
}

bool LineReader::next() {
    line_.clear();
    cut_ = false;
    if (position_ == filled_ && !fill()) return false;
    ++number_;
    for (;;) {
        const char* rest = piece_ + position_;
        const auto* end = static_cast<const char*>(std::memchr(rest, '\n', filled_ - position_));
        take(end == nullptr ? filled_ - position_ : static_cast<std::size_t>(end - rest));
        if (end != nullptr) ++position_;
        if (end != nullptr || !fill()) break;
    }
    if (line_.ends_with('\r')) line_.pop_back();
    return true;
}

bool LineReader::fill() {
    constexpr int kSign = 250;  // milliseconds
    while (waits_ && !wait(input_, kSign)) waits_();
    filled_ = wait_and_read(input_, piece_, sizeof piece_);
    position_ = 0;
    bytes_ += filled_;
    if (waits_) waits_();
    return filled_ > 0;
}

void LineReader::take(std::size_t length) {
    constexpr std::size_t kKept = 4096;
    const std::size_t room = kKept - line_.size();
    line_.append(piece_ + position_, std::min(length, room));
    cut_ = cut_ || length > room;
    position_ += length;
}

std::string read_standard_input() {
    constexpr std::size_t kMost = 1 << 20;
    const Input input = open_input("");
    std::string text;
    char piece[4096];
    while (const std::size_t n = wait_and_read(input, piece, sizeof piece)) {
        text.append(piece, n);
        if (text.size() > kMost) throw Failure(kExitData, "standard input is too long");
    }
    return text;
}

}  // namespace Tessaly::tool
