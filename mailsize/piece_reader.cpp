#include "mailsize/piece_reader.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/fd.h"

namespace Tessaly::mailsize {

std::string_view PieceReader::next() {
    std::string_view piece = first_piece();
    while (!is_whole(piece)) {
        fill();
        piece = first_piece();
    }
    if (failed_ || piece.empty()) return {};
    piece_offset_ = file_offset_ - static_cast<off_t>(filled_ - position_);
    position_ += piece.size();
    return piece;
}

std::string_view PieceReader::first_piece() const {
    const std::string_view rest(buffer_ + position_, std::min(limit_, filled_ - position_));
    const auto line_end = rest.find('\n');
    return line_end == std::string_view::npos ? rest : rest.substr(0, line_end + 1);
}

bool PieceReader::is_whole(std::string_view piece) const {
    return at_end_ || failed_ || piece.size() == limit_ || piece.ends_with('\n');
}

void PieceReader::fill() {
    filled_ -= position_;
    std::memmove(buffer_, buffer_ + position_, filled_);
    position_ = 0;
    const ssize_t n = read_some(buffer_ + filled_, sizeof buffer_ - filled_);
    ++reads_;
    const bool too_long = file_offset_ + n > longest_;
    if (too_long) errno = EFBIG;
    failed_ = n < 0 || too_long;
    at_end_ = n == 0;
    if (failed_ || at_end_) return;
    filled_ += static_cast<std::size_t>(n);
    file_offset_ += n;
}

ssize_t PieceReader::read_some(char* to, std::size_t room) {
    if (fd_ >= 0 || stream_ == nullptr) {
        return base::retry([=, this] { return ::pread(fd_, to, room, file_offset_); });
    }
    const std::size_t n = std::fread(to, 1, room, stream_);
    return n == 0 && std::ferror(stream_) != 0 ? -1 : static_cast<ssize_t>(n);
}

}  // namespace Tessaly::mailsize
