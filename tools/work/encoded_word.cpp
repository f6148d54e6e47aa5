#include "tools/work/encoded_word.h"

#include <algorithm>

namespace Tessaly::tool {

namespace {

using std::string;
using std::string_view;

constexpr string_view kBegin = "=?UTF-8?B?", kEnd = "?=", kFold = "\n ";
// So many bytes make a word that is not longer than a line may be, with "Subject:" in front of it.
constexpr std::size_t kWord = 39;

bool continues_character(char byte) { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; }

string base64(string_view bytes) {
    constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    string text;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const string_view part = bytes.substr(i, 3);
        unsigned bits = 0;
        for (std::size_t k = 0; k < 3; ++k) {
            bits = bits << 8 | (k < part.size() ? static_cast<unsigned char>(part[k]) : 0U);
        }
        for (std::size_t k = 0; k < 4; ++k) {
            text += k <= part.size() ? kDigits[bits >> (18 - 6 * k) & 63] : '=';
        }
    }
    return text;
}

}  // namespace

bool is_ascii(string_view text) {
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

string encoded_words(string_view text) {
    if (is_ascii(text)) return string(text);
    string words;
    while (!text.empty()) {
        std::size_t length = std::min(kWord, text.size());
        while (length > 0 && length < text.size() && continues_character(text[length])) --length;
        if (!words.empty()) words += kFold;
        words.append(kBegin).append(base64(text.substr(0, length))).append(kEnd);
        text.remove_prefix(length);
    }
    return words;
}

string encoded_address(string_view address) {
    const auto at = address.rfind('<');
    if (is_ascii(address) || at == string_view::npos) return string(address);
    const auto end = address.find_last_not_of(' ', at == 0 ? 0 : at - 1);
    const string_view name = address.substr(0, at == 0 ? 0 : end + 1);
    return encoded_words(name) + ' ' + string(address.substr(at));
}

}  // namespace Tessaly::tool
