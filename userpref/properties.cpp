// The one list of the preferences, their defaults, and the look-up by key.
#include "userpref/properties.h"

#include <tessaly/support.h>

#include <algorithm>
#include <array>
#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string_view>
#include <type_traits>
#include <utility>

using Tessaly::userpref::kKeys;
using Tessaly::userpref::kLineCapacity;
using Tessaly::userpref::kLongestText;

namespace {

template <class Field>
consteval std::uint32_t type_of() {
    if constexpr (std::is_same_v<Field, std::int32_t>) {
        return PREF_TYPE_INT;
    } else if constexpr (std::is_same_v<Field, std::uint8_t>) {
        return PREF_TYPE_BOOL;
    } else if constexpr (std::is_same_v<Field, std::uint16_t>) {
        return PREF_TYPE_UINT16;
    } else {
        static_assert(std::is_same_v<std::remove_extent_t<Field>, char>);
        return PREF_TYPE_STRING;
    }
}

}  // namespace

// The preferences in the order of the file, which is not that of the record: field, its place and
// width in the record, default. A key is its field's name. Place and width are interface: they are
// written out, so that a change of the record does not go unnoticed.
#define PREFERENCES(ROW)                      \
    ROW(default_sort, 0, 4, 1)                \
    ROW(npage, 4, 4, 25)                      \
    ROW(dspam, 8, 1, 1)                       \
    ROW(autotrain, 9, 1, 1)                   \
    ROW(whitelist, 794, 1, 0)                 \
    ROW(spamreport, 798, 1, 1)                \
    ROW(uname, 804, 256, "")                  \
    ROW(remail, 1060, 256, "")                \
    ROW(signature, 793, 1, 0)                 \
    ROW(timezone, 800, 4, 0)                  \
    ROW(autoreply, 10, 1, 0)                  \
    ROW(ar_to_me_only, 11, 1, 1)              \
    ROW(ar_start_date, 12, 256, "")           \
    ROW(ar_end_date, 268, 256, "")            \
    ROW(ar_subject, 524, 256, "[Auto Reply]") \
    ROW(ar_action, 780, 4, 1)                 \
    ROW(ar_level, 784, 4, 1)                  \
    ROW(ar_interval, 788, 4, 7)               \
    ROW(autoforward, 792, 1, 0)               \
    ROW(keepcopy, 795, 1, 0)                  \
    ROW(web_idle_timeout, 1316, 2, 1)         \
    ROW(lang, 1318, 256, "en")                \
    ROW(date, 796, 1, 0)                      \
    ROW(size, 797, 1, 0)                      \
    ROW(theme, 1576, 4, 0)                    \
    ROW(forward_option, 1580, 4, 1)           \
    ROW(message_preview, 1584, 1, 1)          \
    ROW(calendar_time_format, 1588, 4, 0)     \
    ROW(calendar_default_view, 1592, 4, 1)    \
    ROW(alternate_id, 1596, 1276, "")         \
    ROW(default_id, 2872, 256, "")            \
    ROW(message_check_interval, 3128, 4, 5)   \
    ROW(show_remote_content, 3132, 1, 1)      \
    ROW(page_size, 3136, 4, 25)               \
    ROW(notification, 3140, 1, 0)

#define PROPERTY(field, at, bytes, value)                                                   \
    [] {                                                                                    \
        static_assert(offsetof(user_pref, field) == (at), #field " has moved");             \
        static_assert(sizeof(user_pref::field) == (bytes), #field " has another width");    \
        return pref_property{#field, type_of<decltype(user_pref::field)>(), (at), (bytes)}; \
    }(),

constexpr pref_property pref_properties[] = {PREFERENCES(PROPERTY){nullptr, 0, 0, 0}};
static_assert(sizeof(user_pref) == 3144 && alignof(user_pref) == 4);
static_assert(std::is_trivially_copyable_v<user_pref> && std::is_standard_layout_v<user_pref>);

namespace {

static_assert(std::size(pref_properties) == kKeys + 1);

// The first four letters of a line as a number.
constexpr std::uint32_t first_letters(const char* line) {
    std::array<char, 4> letters{line[0], line[1], line[2], line[3]};
    return std::bit_cast<std::uint32_t>(letters);
}

// The rows by the first four letters of their keys: chains of the few rows that share a slot.
class KeyChains {
  public:
    static constexpr std::size_t kNone = kKeys;

    consteval KeyChains() {
        heads_.fill(kNone);
        for (std::size_t row = kKeys; row-- > 0;) {
            std::uint8_t& head = heads_[slot(pref_properties[row].name)];
            nexts_[row] = std::exchange(head, static_cast<std::uint8_t>(row));
            lengths_[row] = static_cast<std::uint8_t>(key(row).size());
        }
    }

    std::size_t length(std::size_t row) const { return lengths_[row]; }

    // The row whose key begins the line, or kNone.
    std::size_t find(const char* line) const {
        if (line[0] == '\0' || line[1] == '\0' || line[2] == '\0') return kNone;
        std::size_t row = heads_[slot(line)];
        while (row != kNone && !begins(line, row)) row = nexts_[row];
        return row;
    }

    static constexpr std::string_view key(std::size_t row) { return pref_properties[row].name; }

  private:
    static constexpr int kSlotBits = 6;

    static constexpr std::size_t slot(const char* line) {
        // Any odd number that spreads well.
        return first_letters(line) * 0x9E3779B1 >> (32 - kSlotBits);
    }

    bool begins(const char* line, std::size_t row) const {
        return std::strncmp(line, pref_properties[row].name, lengths_[row]) == 0;
    }

    std::array<std::uint8_t, 1 << kSlotBits> heads_{};
    std::array<std::uint8_t, kKeys> nexts_{};
    std::array<std::uint8_t, kKeys> lengths_{};
};

constexpr KeyChains kChains;

// The look-up relies on this: a key has four letters or more, and a line cannot begin with two
// keys.
constexpr bool keys_can_be_told_apart() {
    for (std::size_t row = 0; row < kKeys; ++row) {
        if (KeyChains::key(row).size() < 4) return false;
        for (std::size_t other = 0; other < kKeys; ++other) {
            if (other != row && KeyChains::key(other).starts_with(KeyChains::key(row)))
                return false;
        }
    }
    return true;
}
static_assert(keys_can_be_told_apart());

constexpr std::size_t longest_value(const pref_property& row) {
    switch (row.type) {
        case PREF_TYPE_INT:
            return std::string_view("-2147483648").size();
        case PREF_TYPE_BOOL:
            return 1;
        case PREF_TYPE_UINT16:
            return std::string_view("65535").size();
        default:
            return row.size - 1;
    }
}

constexpr std::size_t longest_text() {
    std::size_t sum = 0;
    for (std::size_t row = 0; row < kKeys; ++row) {
        const pref_property& it = pref_properties[row];
        const std::size_t line = std::string_view(it.name).size() + 2 + longest_value(it);
        sum += std::min<std::size_t>(line, kLineCapacity - 1);
    }
    return sum;
}
static_assert(longest_text() == kLongestText);

}  // namespace

namespace Tessaly::userpref {

namespace {

constexpr bool ends_line(char c) { return c == '\0' || c == '\n' || c == '\r'; }
constexpr bool is_blank(char c) { return c == ' ' || c == '\t'; }

// "key=" as it stands at the beginning of a line that this library wrote, to be compared in words.
class Beginning {
  public:
    consteval explicit Beginning(std::string_view key) {
        Bytes text{}, mask{};
        std::copy(key.begin(), key.end(), text.begin());
        text[key.size()] = '=';
        std::fill_n(mask.begin(), key.size() + 1, '\xff');
        text_ = std::bit_cast<Words>(text);
        mask_ = std::bit_cast<Words>(mask);
    }

    bool operator()(const char* line) const {
        Words words;
        std::memcpy(&words, line, sizeof words);
        std::uint64_t differences = 0;
#pragma GCC unroll 3
        for (std::size_t i = 0; i < words.size(); ++i)
            differences |= (words[i] ^ text_[i]) & mask_[i];
        return differences == 0;
    }

  private:
    using Bytes = std::array<char, LineReader::kLookAhead>;
    using Words = std::array<std::uint64_t, sizeof(Bytes) / sizeof(std::uint64_t)>;

    Words text_, mask_;
};

template <std::size_t... row>
consteval std::array<Beginning, kKeys> all_beginnings(std::index_sequence<row...>) {
    return {Beginning(KeyChains::key(row))...};
}
constexpr auto kBeginnings = all_beginnings(std::make_index_sequence<kKeys>());

Setting setting_behind_key(const char* line, std::size_t row) {
    const pref_property* const property = &pref_properties[row];
    const char* rest = line + kChains.length(row);
    if (*rest == '=') return {property, rest + 1};
    if (ends_line(*rest)) return {property, nullptr};
    while (is_blank(*rest)) ++rest;
    if (*rest != '=') return {nullptr, nullptr};
    return {property, rest + 1};
}

}  // namespace

Setting setting_of(const char* line) {
    const std::size_t row = kChains.find(line);
    if (row == KeyChains::kNone) return {nullptr, nullptr};
    return setting_behind_key(line, row);
}

Setting LineReader::read(const char* line) {
    if (expected_ < kKeys && kBeginnings[expected_](line)) {
        const std::size_t row = expected_++;
        return {&pref_properties[row], line + kChains.length(row) + 1};
    }
    const Setting setting = setting_of(line);
    if (setting.row != nullptr) {
        expected_ = static_cast<std::size_t>(setting.row - pref_properties) + 1;
    }
    return setting;
}

}  // namespace Tessaly::userpref

namespace {

template <std::integral Number>
constexpr void set(Number& field, std::type_identity_t<Number> value) {
    field = value;
}
template <std::size_t kRoom>
constexpr void set(char (&field)[kRoom], std::string_view text) {
    std::copy(text.begin(), text.end(), field);
}

#define SET(field, at, bytes, value) set(record.field, value);

constexpr user_pref kDefaults = [] {
    user_pref record = {};
    PREFERENCES(SET)
    return record;
}();

}  // namespace

user_pref* get_default_user_pref(user_pref* p) {
    std::memcpy(p, &kDefaults, sizeof *p);
    return p;
}

user_pref* get_default_user_pref_with_tz(user_pref* p) {
    get_default_user_pref(p);
    p->timezone = *::cfg_get_TZ();
    return p;
}
