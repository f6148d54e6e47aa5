#include "tools/work/utf7.h"

#include <utf8proc.h>

#include <cstdint>
#include <vector>

namespace Tessaly::tool {

namespace {

using std::string;
using std::string_view;
using Units = std::vector<std::uint16_t>;  // UTF-16

constexpr char kShift = '&', kBack = '-';
constexpr string_view kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+,";
constexpr utf8proc_int32_t kFirstPair = 0x10000;
constexpr unsigned kHigh = 0xD800, kLow = 0xDC00, kPairBits = 10, kPairMask = 0x3FF;

bool is_plain(utf8proc_int32_t c) { return c >= 0x20 && c < 0x7F && c != '.'; }

void add_units(utf8proc_int32_t c, Units& units) {
    if (c < kFirstPair) return units.push_back(static_cast<std::uint16_t>(c));
    const auto rest = static_cast<unsigned>(c - kFirstPair);
    units.push_back(static_cast<std::uint16_t>(kHigh + (rest >> kPairBits)));
    units.push_back(static_cast<std::uint16_t>(kLow + (rest & kPairMask)));
}

// "&" with the units in base 64 and "-". Clears them.
void write_units(Units& units, string& text) {
    if (units.empty()) return;
    text += kShift;
    std::uint32_t bits = 0;
    int held = 0;
    for (const std::uint16_t unit : units) {
        bits = bits << 16 | unit;
        for (held += 16; held >= 6; held -= 6) text += kDigits[bits >> (held - 6) & 63];
    }
    if (held > 0) text += kDigits[bits << (6 - held) & 63];
    text += kBack;
    units.clear();
}

bool add_utf8(utf8proc_int32_t c, string& text) {
    utf8proc_uint8_t bytes[4];
    if (c == 0 || !utf8proc_codepoint_valid(c)) return false;
    const auto n = utf8proc_encode_char(c, bytes);
    text.append(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(n));
    return true;
}

// Reads units of base 64 digits; false if the digits are not whole units.
bool read_units(string_view digits, Units& units) {
    std::uint32_t bits = 0;
    int held = 0;
    for (const char digit : digits) {
        const auto value = kDigits.find(digit);
        if (value == string_view::npos) return false;
        bits = bits << 6 | static_cast<std::uint32_t>(value);
        held += 6;
        if (held < 16) continue;
        held -= 16;
        units.push_back(static_cast<std::uint16_t>(bits >> held));
    }
    return held < 6 && (bits & ((1U << held) - 1)) == 0 && !units.empty();
}

bool add_text(const Units& units, string& text) {
    for (std::size_t i = 0; i < units.size(); ++i) {
        utf8proc_int32_t c = units[i];
        const bool pair = (units[i] & ~kPairMask) == kHigh && i + 1 < units.size() &&
                          (units[i + 1] & ~kPairMask) == kLow;
        if (pair) {
            const auto high = static_cast<utf8proc_int32_t>((units[i] & kPairMask) << kPairBits);
            c = kFirstPair + high + static_cast<utf8proc_int32_t>(units[++i] & kPairMask);
        }
        if (!add_utf8(c, text)) return false;
    }
    return true;
}

}  // namespace

std::optional<string> to_utf7(string_view name) {
    string text;
    Units units;
    while (!name.empty()) {
        utf8proc_int32_t c = 0;
        const auto n = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(name.data()),
                                        static_cast<utf8proc_ssize_t>(name.size()), &c);
        if (n <= 0) return std::nullopt;
        name.remove_prefix(static_cast<std::size_t>(n));
        if (!is_plain(c)) {
            add_units(c, units);
            continue;
        }
        write_units(units, text);
        text += static_cast<char>(c);
        if (c == kShift) text += kBack;
    }
    write_units(units, text);
    return text;
}

std::optional<string> from_utf7(string_view text) {
    string name;
    while (!text.empty()) {
        const char c = text.front();
        if (c < 0x20 || c >= 0x7F) return std::nullopt;
        text.remove_prefix(1);
        if (c != kShift) {
            name += c;
            continue;
        }
        const auto end = text.find(kBack);
        if (end == string_view::npos) return std::nullopt;
        Units units;
        if (end == 0) {
            name += kShift;
        } else if (!read_units(text.substr(0, end), units) || !add_text(units, name)) {
            return std::nullopt;
        }
        text.remove_prefix(end + 1);
    }
    return name;
}

}  // namespace Tessaly::tool
