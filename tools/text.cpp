#include "tools/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

namespace Tessaly::tool {

namespace {

using CodePoint = char32_t;

struct Decoded {
    std::size_t length;  // 0: no valid sequence here
    CodePoint code_point;
};

struct Range {
    CodePoint first, last;
};

// Controls, and format characters that are invisible or reorder what stands around them.
constexpr Range kHidden[] = {{0x00, 0x1F},     {0x7F, 0x9F},      {0xAD, 0xAD},
                             {0x61C, 0x61C},   {0x180E, 0x180E},  {0x200B, 0x200F},
                             {0x2028, 0x202E}, {0x2060, 0x206F},  {0xFEFF, 0xFEFF},
                             {0xFFF9, 0xFFFB}, {0xE0000, 0xE0FFF}};

bool is_hidden(CodePoint c) {
    return std::any_of(std::begin(kHidden), std::end(kHidden),
                       [c](const Range& r) { return r.first <= c && c <= r.last; });
}

// By the first byte: how long the sequence is, and the smallest code point that needs that length.
struct Form {
    std::size_t length;
    CodePoint smallest;
    unsigned char mask, value;
};
constexpr Form kForms[] = {
    {1, 0, 0x80, 0x00}, {2, 0x80, 0xE0, 0xC0}, {3, 0x800, 0xF0, 0xE0}, {4, 0x10000, 0xF8, 0xF0}};

bool is_scalar(CodePoint c) { return c <= 0x10FFFF && (c < 0xD800 || c > 0xDFFF); }

Decoded decode_as(const Form& form, std::string_view text) {
    if (text.size() < form.length) return {0, 0};
    CodePoint c = static_cast<unsigned char>(text[0]) & static_cast<unsigned char>(~form.mask);
    for (std::size_t i = 1; i < form.length; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte & 0xC0U) != 0x80U) return {0, 0};
        c = (c << 6) | (byte & 0x3FU);
    }
    return c >= form.smallest && is_scalar(c) ? Decoded{form.length, c} : Decoded{0, 0};
}

Decoded decode(std::string_view text) {
    const auto first = static_cast<unsigned char>(text[0]);
    for (const Form& form : kForms) {
        if ((first & form.mask) == form.value) return decode_as(form, text);
    }
    return {0, 0};
}

}  // namespace

std::string printable(std::string_view text) {
    std::string shown;
    while (!text.empty()) {
        const Decoded c = decode(text);
        const std::size_t length = std::max<std::size_t>(c.length, 1);
        if (c.length > 0 && !is_hidden(c.code_point)) {
            shown.append(text.substr(0, length));
        } else {
            for (const char byte : text.substr(0, length)) {
                fmt::format_to(std::back_inserter(shown), "\\x{:02x}",
                               static_cast<unsigned char>(byte));
            }
        }
        text.remove_prefix(length);
    }
    return shown;
}

std::string size_text(std::uint64_t bytes) {
    constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    constexpr double kStep = 1024;
    // From here on one decimal would be rounded up to the next unit.
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
