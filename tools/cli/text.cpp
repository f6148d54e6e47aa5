#include "tools/cli/text.h"

#include <fmt/format.h>
#include <utf8proc.h>

#include <algorithm>
#include <iterator>

namespace Tessaly::tool {

namespace {

struct Character {
    std::size_t length;  // in bytes; 1 for a byte that does not begin a valid sequence
    utf8proc_int32_t code_point;
    bool valid;
};

// The first character of the text.
Character first_of(std::string_view text) {
    utf8proc_int32_t code_point = -1;
    const utf8proc_ssize_t length =
        utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                         static_cast<utf8proc_ssize_t>(text.size()), &code_point);
    if (length <= 0) return {1, code_point, false};
    return {static_cast<std::size_t>(length), code_point, true};
}

// These choose between the text form and the picture form of the character before them.
bool selects_form(utf8proc_int32_t code_point) {
    return code_point == 0xFE0E || code_point == 0xFE0F;
}

// Control characters, and characters that are invisible or reorder the text around them.
bool is_hidden(utf8proc_int32_t code_point) {
    const utf8proc_property_t& property = *utf8proc_get_property(code_point);
    switch (property.category) {
        case UTF8PROC_CATEGORY_CC:
        case UTF8PROC_CATEGORY_CF:
        case UTF8PROC_CATEGORY_ZL:
        case UTF8PROC_CATEGORY_ZP:
            return true;
        default:
            return property.ignorable && !selects_form(code_point);
    }
}

// Vowels and final consonants of decomposed Hangul stand within the syllable's first consonant.
bool joins_syllable(utf8proc_int32_t code_point) {
    const auto kind = utf8proc_get_property(code_point)->boundclass;
    return kind == UTF8PROC_BOUNDCLASS_V || kind == UTF8PROC_BOUNDCLASS_T;
}

}  // namespace

std::string printable(std::string_view text) {
    std::string shown;
    while (!text.empty()) {
        const Character c = first_of(text);
        const std::string_view bytes = text.substr(0, c.length);
        if (c.valid && !is_hidden(c.code_point)) {
            shown.append(bytes);
        } else {
            for (const char byte : bytes) {
                fmt::format_to(std::back_inserter(shown), "\\x{:02x}",
                               static_cast<unsigned char>(byte));
            }
        }
        text.remove_prefix(c.length);
    }
    return shown;
}

std::size_t width_of(std::string_view text) {
    std::size_t width = 0;
    while (!text.empty()) {
        const Character c = first_of(text);
        if (!c.valid) {
            ++width;
        } else if (!joins_syllable(c.code_point)) {
            width += static_cast<std::size_t>(utf8proc_charwidth(c.code_point));
        }
        text.remove_prefix(c.length);
    }
    return width;
}

std::string counted(std::uint64_t number, const char* thing) {
    return fmt::format("{} {}{}", number, thing, number == 1 ? "" : "s");
}

std::string size_text(std::uint64_t bytes) {
    constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    constexpr double kStep = 1024;
    // From here on, rounding to one decimal would give the next unit.
    constexpr double kNextUnit = 1023.95;
    if (bytes < static_cast<std::uint64_t>(kStep)) return fmt::format("{} B", bytes);
    auto value = static_cast<double>(bytes);
    std::size_t unit = 0;
    while (value >= kNextUnit && unit + 1 < std::size(kUnits)) {
        value /= kStep;
        ++unit;
    }
    return fmt::format("{:.1f} {}", value, kUnits[unit]);
}

std::string messages_text(std::uint64_t number) { return counted(number, "message"); }

bool is_utf8(std::string_view text) {
    while (!text.empty()) {
        const Character c = first_of(text);
        if (!c.valid) return false;
        text.remove_prefix(c.length);
    }
    return true;
}

bool has_control_character(std::string_view text) {
    return std::any_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte < 0x20 || byte == 0x7F;
    });
}

std::string folded(std::string_view text) {
    std::string result(text);
    for (char& c : result) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        if (c == '_') c = '-';
    }
    return result;
}

}  // namespace Tessaly::tool
