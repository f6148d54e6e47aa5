// Composing texts: concat makes one string with one allocation; BoundedText writes into a buffer of
// fixed size and cuts what does not fit.
#ifndef TSMAIL_BASE_TEXT_H
#define TSMAIL_BASE_TEXT_H

#include <algorithm>
#include <charconv>
#include <concepts>
#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <string>
#include <string_view>

namespace Tessaly::base {

inline std::string concat(std::initializer_list<std::string_view> parts) {
    std::size_t length = 0;
    for (const std::string_view part : parts) length += part.size();
    std::string text;
    text.reserve(length);
    for (const std::string_view part : parts) text.append(part);
    return text;
}

// A writer into a caller's buffer of `size` >= 1 bytes. It keeps one byte for the final NUL and
// remembers whether anything was cut. Nothing is allocated.
class BoundedText {
  public:
    BoundedText(char* buffer, std::size_t size)
        : begin_(buffer), next_(buffer), end_(buffer + size - 1) {}

    BoundedText& operator<<(std::string_view text) {
        const std::size_t n = std::min(text.size(), room());
        text.copy(next_, n);  // an empty text may have no address
        next_ += n;
        cut_ = cut_ || n < text.size();
        return *this;
    }
    BoundedText& operator<<(char c) {
        if (next_ == end_) {
            cut_ = true;
        } else {
            *next_++ = c;
        }
        return *this;
    }

    template <std::integral Number>
    requires(!std::same_as<Number, char> && !std::same_as<Number, bool>) BoundedText& operator<<(
        Number number) {
        if (const auto [end, error] = std::to_chars(next_, end_, number); error == std::errc{}) {
            next_ = end;
            return *this;
        }
        char digits[24];  // holds any 64-bit number; only a nearly full buffer comes here
        const char* end = std::to_chars(digits, digits + sizeof digits, number).ptr;
        return *this << std::string_view(digits, static_cast<std::size_t>(end - digits));
    }

    std::string_view view() const { return {begin_, static_cast<std::size_t>(next_ - begin_)}; }
    std::size_t room() const { return static_cast<std::size_t>(end_ - next_); }
    bool cut() const { return cut_; }
    // Ends the text with NUL (writing may go on afterwards).
    char* c_str() {
        *next_ = '\0';
        return begin_;
    }

  private:
    char* begin_;
    char* next_;
    char* end_;
    bool cut_ = false;
};

}  // namespace Tessaly::base

#endif
