#include "maillist/lines.h"

#include <tessaly/maillist.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>

#include "base/fd.h"
#include "base/io.h"
#include "base/text.h"

namespace Tessaly::maillist {

namespace {
// Without the bit in which the two cases of an ASCII letter differ, in each of eight bytes.
constexpr std::uint64_t kNotCaseBits = ~std::uint64_t{0x2020202020202020};
}  // namespace

char* strip_line_end(char* text) {
    std::size_t length = std::strlen(text);
    while (length > 0 && text[length - 1] == '\n') {
        --length;
        if (length > 0 && text[length - 1] == '\r') --length;
    }
    if (text[length] != '\0') text[length] = '\0';  // a text without a line end may be a literal
    return text;
}

const char* LineWindow::fill(const char* begin) {
    const std::size_t rest = static_cast<std::size_t>(end() - begin);
    std::memmove(buffer_ + kPieceStart - rest, begin, rest);
    const ssize_t n = base::retry([this] { return ::read(fd_, buffer_ + kPieceStart, kPiece); });
    taken_ += n;
    if (taken_ > base::kLongestFile) errno = EFBIG;
    failed_ = n < 0 || taken_ > base::kLongestFile;
    end_ = kPieceStart + static_cast<std::size_t>(failed_ ? 0 : n);
    // LineEnds may look beyond the end and must not find a line end or a NUL there.
    std::memset(buffer_ + end_, ' ', LineEnds::kWidth);
    return buffer_ + kPieceStart - rest;
}

namespace {

// Whether the ASCII letters are the only letters of the locale with two cases.
bool folds_ascii_only(Fold fold) {
    bool only = true;
    for (int c = 0; c <= UCHAR_MAX; ++c) {
        const int folded = c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c;
        only &= fold(static_cast<char>(c)) == folded;
    }
    return only;
}

}  // namespace

EntryMatcher::EntryMatcher(const char* entry) : entry_(entry), length_(std::strlen(entry)) {
    const std::size_t count = std::min(length_, sizeof head_);
    std::memcpy(&head_, entry, count);
    if (folds_ascii_only(fold_)) std::memcpy(&head_mask_, &kNotCaseBits, count);
}

int find_line(int fd, const char* entry) {
    const EntryMatcher is_entry(entry);
    bool found = false;
    read_lines(fd, [&](std::string_view line) {
        if (!is_entry(line)) return true;
        found = true;
        return false;
    });
    return found ? 1 : 0;
}

int append_line(int fd, const char* text) {
    return base::write_all(fd, base::concat({text, "\n"})) ? 0 : -1;
}

}  // namespace Tessaly::maillist

int maillist_count(FILE* stream) {
    if (stream == nullptr) return -1;
    char line[Tessaly::maillist::kLineLimit + 1];
    int count = 0;
    std::rewind(stream);
    while (std::fgets(line, sizeof line, stream) != nullptr) ++count;
    return count;
}
