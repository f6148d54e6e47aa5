// Numbers: a text that is a number and nothing else; sums that end at the largest number.
#ifndef TSMAIL_BASE_NUMBER_H
#define TSMAIL_BASE_NUMBER_H

#include <charconv>
#include <concepts>
#include <limits>
#include <optional>
#include <string_view>

namespace Tessaly::base {

// The number that the whole text is, in decimal digits with at most a minus sign; nothing for other
// texts and for a number that the type does not hold.
template <std::integral Number>
std::optional<Number> whole_number(std::string_view text) {
    Number number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc{} || rest != end) return std::nullopt;
    return number;
}

// Adds what is not negative, up to the largest number: sizes in names are whatever somebody wrote.
template <std::integral Number>
void add_up(Number& sum, Number more) {
    if (__builtin_add_overflow(sum, more, &sum)) sum = std::numeric_limits<Number>::max();
}

}  // namespace Tessaly::base

#endif
