#include "tools/lmtp/message_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <unistd.h>

#include <cstdlib>
#include <utility>

namespace Tessaly::tool::lmtp {

namespace {

constexpr std::uint64_t kMemory = std::uint64_t{8} << 20;
constexpr std::uint64_t kForSmall = std::uint64_t{2} << 20;
constexpr std::uint64_t kSmall = std::uint64_t{128} << 10;
constexpr std::uint64_t kPage = 4096;
constexpr std::size_t kHeld = 4096;

Fd file_in_memory() { return Fd(::memfd_create("message", MFD_CLOEXEC)); }

Fd file_on_disk() {
    for (const char* directory :
         {static_cast<const char*>(std::getenv("TMPDIR")), "/var/tmp", "/tmp"}) {
        if (directory == nullptr) continue;
        Fd fd(retry([&] { return ::open(directory, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600); }));
        if (fd) return fd;
    }
    return {};
}

}  // namespace

bool Memory::has_room(std::uint64_t size, std::uint64_t more) const {
    const std::uint64_t most = size <= kSmall ? kMemory : kMemory - kForSmall;
    return more <= most && taken_ <= most - more;
}

MessageFile::MessageFile(std::uint64_t announced, Memory& memory)
    : memory_(memory), in_memory_(memory.has_room(announced, announced)) {
    fd_ = in_memory_ ? file_in_memory() : file_on_disk();
    if (!fd_) error_ = errno;
    held_.reserve(kHeld);
}

void MessageFile::write(std::string_view bytes) {
    if (held_.size() + bytes.size() > kHeld) flush();
    if (bytes.size() >= kHeld) return put(bytes);
    held_.insert(held_.end(), bytes.begin(), bytes.end());
}

bool MessageFile::finish() {
    flush();
    held_ = {};
    return error_ == 0;
}

void MessageFile::flush() {
    put({held_.data(), held_.size()});
    held_.clear();
}

void MessageFile::put(std::string_view bytes) {
    if (in_memory_ && !fits(written_ + bytes.size())) move_to_disk();
    while (error_ == 0 && !bytes.empty()) {
        const ssize_t n = retry([&] { return ::write(fd_.get(), bytes.data(), bytes.size()); });
        if (n < 0) {
            error_ = errno;
            return;
        }
        written_ += static_cast<std::uint64_t>(n);
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
}

// Reserves memory for a message of this size, in pages.
bool MessageFile::fits(std::uint64_t size) {
    const std::uint64_t pages = (size + kPage - 1) / kPage * kPage;
    if (pages <= reserved_) return true;
    if (!memory_.has_room(pages, pages - reserved_)) return false;
    memory_.take(pages - reserved_);
    reserved_ = pages;
    return true;
}

void MessageFile::move_to_disk() {
    if (error_ != 0) return;
    in_memory_ = false;
    memory_.give_back(std::exchange(reserved_, 0));
    Fd file = file_on_disk();
    off_t position = 0;
    while (file && static_cast<std::uint64_t>(position) < written_) {
        const auto left = static_cast<std::size_t>(written_) - static_cast<std::size_t>(position);
        const ssize_t n = retry([&] { return ::sendfile(file.get(), fd_.get(), &position, left); });
        if (n <= 0) file.reset();
    }
    if (!file) error_ = errno != 0 ? errno : EIO;
    if (file) fd_ = std::move(file);
}

}  // namespace Tessaly::tool::lmtp
