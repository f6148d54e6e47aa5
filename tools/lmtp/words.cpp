#include "tools/lmtp/words.h"

#include <strings.h>

#include <algorithm>
#include <charconv>

namespace Tessaly::tool::lmtp {

using std::string;
using std::string_view;

bool equal(string_view a, string_view b) {
    return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

bool drop_prefix(string_view& text, string_view prefix) {
    if (!equal(text.substr(0, prefix.size()), prefix)) return false;
    text.remove_prefix(prefix.size());
    return true;
}

string_view next_word(string_view& text) {
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    const string_view word = text.substr(0, text.find(' '));
    text.remove_prefix(word.size());
    return word;
}

std::optional<std::uint64_t> number_of(string_view text) {
    std::uint64_t number = 0;
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (text.empty() || rest != end || error != std::errc()) return std::nullopt;
    return number;
}

string decoded_xtext(string_view text) {
    string plain;
    for (; !text.empty(); text.remove_prefix(1)) {
        unsigned byte = 0;
        const bool escaped =
            text.front() == '+' && text.size() > 2 &&
            std::from_chars(text.data() + 1, text.data() + 3, byte, 16).ptr == text.data() + 3;
        plain += escaped ? static_cast<char>(byte) : text.front();
        if (escaped) text.remove_prefix(2);
    }
    return plain;
}

}  // namespace Tessaly::tool::lmtp
