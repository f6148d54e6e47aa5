// Decimal numbers as the scanf and strtol families read them, independent of the process's locale.
#ifndef TSMAIL_MAILSIZE_NUMBER_H
#define TSMAIL_MAILSIZE_NUMBER_H

#include <cstdint>
#include <limits>
#include <string_view>

namespace Tessaly::mailsize {

// White space of the C locale.
inline bool is_space(int c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
inline bool is_digit(int c) { return c >= '0' && c <= '9'; }

// A place in a text in memory. A NUL ends the text, as it ends a C string.
class TextCursor {
  public:
    explicit TextCursor(std::string_view text) : next_(text.data()), end_(next_ + text.size()) {}
    // The byte here, 0 at the end.
    int peek() const { return next_ < end_ ? static_cast<unsigned char>(*next_) : 0; }
    void advance() { ++next_; }

  private:
    const char* next_;
    const char* end_;
};

// What was read: sign and magnitude. A number that does not fit stands as the nearest that does.
struct Number {
    bool found = false;
    bool negative = false;
    bool beyond_64_bits = false;
    std::uint64_t magnitude = 0;

    // The value that strtoll returns.
    long long as_signed() const {
        if (beyond_signed()) {
            return negative ? std::numeric_limits<long long>::min()
                            : std::numeric_limits<long long>::max();
        }
        return static_cast<long long>(negative ? 0 - magnitude : magnitude);
    }
    bool beyond_signed() const {
        constexpr std::uint64_t kMax = std::numeric_limits<std::int64_t>::max();
        return beyond_64_bits || magnitude > kMax + (negative ? 1 : 0);
    }
    // The value that strtoull returns: a minus sign negates the number modulo 2^64.
    std::uint64_t as_unsigned() const {
        if (beyond_64_bits) return std::numeric_limits<std::uint64_t>::max();
        return negative ? 0 - magnitude : magnitude;
    }
};

// Reads white space, a sign and digits. Cursor: peek() gives the next byte or 0 at the end.
template <class Cursor>
Number scan_number(Cursor& in) {
    Number number;
    while (is_space(in.peek())) in.advance();
    number.negative = in.peek() == '-';
    if (number.negative || in.peek() == '+') in.advance();
    for (; is_digit(in.peek()); in.advance()) {
        const auto digit = static_cast<std::uint64_t>(in.peek() - '0');
        number.found = true;
        number.beyond_64_bits |= __builtin_mul_overflow(number.magnitude, 10, &number.magnitude);
        number.beyond_64_bits |= __builtin_add_overflow(number.magnitude, digit, &number.magnitude);
    }
    return number;
}

}  // namespace Tessaly::mailsize

#endif
