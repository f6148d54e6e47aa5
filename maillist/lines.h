// The lines of a list file: reading, comparing, appending.
#ifndef TSMAIL_MAILLIST_LINES_H
#define TSMAIL_MAILLIST_LINES_H

#include <sys/types.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>

#include "maillist/fold.h"
#include "maillist/line_ends.h"

namespace Tessaly::maillist {

// The number of characters of a line, its end included, that are read at a time. A longer line
// counts as several lines.
constexpr std::ptrdiff_t kLineLimit = 255;

// Removes the line ends ("\n" or "\r\n", any number of them) at the end of a text, in place.
char* strip_line_end(char* text);

// The window through which a list is read, in large pieces. If a piece ends within a line, the
// beginning of that line is moved in front of the next piece. The buffer lies inside the object.
class LineWindow {
  public:
    explicit LineWindow(int fd) : fd_(fd) {}

    // Moves the window's unused rest, from `begin` on, in front of the next piece and reads that
    // piece. The rest is shorter than kLineLimit. Returns the new place of the rest. The piece is
    // empty at the end of the file and on a read error; a file of more than base::kLongestFile
    // bytes counts as a read error.
    const char* fill(const char* begin);

    const char* piece() const { return buffer_ + kPieceStart; }
    const char* end() const { return buffer_ + end_; }  // of the piece; LineEnds may look beyond
    bool empty() const { return end_ == kPieceStart; }
    bool failed() const { return failed_; }

  private:
    static constexpr std::size_t kPieceStart = 256;  // room for an unended line
    static constexpr std::size_t kPiece = 65536;     // stays in the processor's cache

    static_assert(kPieceStart >= kLineLimit && kPieceStart % LineEnds::kWidth == 0);
    alignas(LineEnds::kWidth) char buffer_[kPieceStart + kPiece + LineEnds::kWidth];
    std::size_t end_ = kPieceStart;
    int fd_;
    off_t taken_ = 0;
    bool failed_ = false;
};

// The text of a line that has the given bytes before its "\n". A NUL or "\r" may be among them.
inline std::string_view odd_line_text(std::string_view line) {
    const std::size_t nul = line.find('\0');
    if (nul != line.npos) return line.substr(0, nul);
    return line.ends_with('\r') ? line.substr(0, line.size() - 1) : line;
}

// Visits a text that has no line end in it or behind it.
template <class Visit>
inline bool visit_endless(const char* begin, const char* end, bool odd, Visit& visit) {
    const auto length = static_cast<std::size_t>(end - begin);
    return visit(std::string_view(begin, odd ? ::strnlen(begin, length) : length));
}

// Visits the pieces of the overlong line that reaches up to `end`, except the last piece.
template <class Visit>
inline bool visit_overlong(const char*& begin, const char* end, bool odd, Visit& visit) {
    while (end - begin >= kLineLimit) {
        const char* start = std::exchange(begin, begin + kLineLimit);
        if (!visit_endless(start, begin, odd, visit)) return false;
    }
    return true;
}

// Visits the lines that end within the next LineEnds::kWidth bytes from `at`. `odd` tells whether a
// NUL or "\r" has been met so far.
template <class Visit>
inline bool visit_look(const char*& begin, const char* at, bool& odd, Visit& visit) {
    const LineEnds ends = line_ends(at);
    odd = odd || ends.odd;
    for (std::uint64_t bits = ends.bits; bits != 0; bits &= bits - 1) {
        const char* end = at + std::countr_zero(bits);
        if (!visit_overlong(begin, end, odd, visit)) return false;
        const char* start = std::exchange(begin, end + 1);
        const std::string_view line(start, static_cast<std::size_t>(end - start));
        if (!visit(odd ? odd_line_text(line) : line)) return false;
    }
    return true;
}

// Hands every line's text to visit(text), which answers whether to go on: the lines that fgets with
// a buffer of 256 bytes and strip_line_end would give, each up to its first NUL. The file is read
// from the descriptor's offset on. False on a read error.
template <class Visit>
bool read_lines(int fd, Visit visit) {
    LineWindow window(fd);
    bool odd = false;
    const char* begin = window.fill(window.end());
    while (!window.empty()) {
        const char* const end = window.end();
        for (const char* at = window.piece(); at < end; at += LineEnds::kWidth) {
            if (!visit_look(begin, at, odd, visit)) return true;
        }
        if (!visit_overlong(begin, end, odd, visit)) return true;
        begin = window.fill(begin);
    }
    if (window.failed()) return false;
    if (begin != window.end()) visit_endless(begin, window.end(), odd, visit);
    return true;
}

// Compares the lines of read_lines with one entry, ignoring letter case as strcasecmp does.
class EntryMatcher {
  public:
    explicit EntryMatcher(const char* entry);

    // One comparison settles most lines: that of the length and of the first letters, taken as a
    // number without the bits in which letter case differs. (Behind a short line the window always
    // has more bytes to read.)
    bool operator()(std::string_view line) const {
        const std::uint64_t head = (load(line.data()) ^ head_) & head_mask_;
        return (head | (line.size() ^ length_)) == 0 && fold_.equal(line.data(), entry_, length_);
    }

  private:
    static std::uint64_t load(const char* text) {
        std::uint64_t word;
        std::memcpy(&word, text, sizeof word);
        return word;
    }

    Fold fold_;
    const char* entry_;
    std::size_t length_;
    std::uint64_t head_ = 0;
    std::uint64_t head_mask_ = 0;
};

// 1 if some line of the file equals the entry ignoring letter case, else 0 (also on a read error).
int find_line(int fd, const char* entry);

// Writes the text and "\n" in one piece at the end of a file opened for appending: 0, or -1 with
// errno. Throws std::bad_alloc.
int append_line(int fd, const char* text);

}  // namespace Tessaly::maillist

#endif
