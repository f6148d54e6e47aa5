// The conversions between a preference's text and its field, one pair a type.
#include <tessaly/support.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "base/text.h"
#include "userpref/properties.h"

namespace {

using Tessaly::base::BoundedText;

constexpr bool is_digit(char c) { return c >= '0' && c <= '9'; }

// A number as `convert` (strtol, strtoll) reads it in base 10. The usual short ones are read here,
// one digit quickest; blanks, plus signs, saturation and texts without digits are left to it.
template <class Int>
Int decimal(const char* text, Int convert(const char*, char**, int)) {
    constexpr int kShort = 9;  // digits that fit every integer
    if (is_digit(text[0]) && !is_digit(text[1])) return text[0] - '0';
    const bool negative = *text == '-';
    const char* const digits = text + (negative ? 1 : 0);
    const char* end = digits;
    unsigned long value = 0;
    for (; is_digit(*end); ++end) value = value * 10 + static_cast<unsigned>(*end - '0');
    if (end == digits || end - digits > kShort) return convert(text, nullptr, 10);
    return negative ? -static_cast<Int>(value) : static_cast<Int>(value);
}

template <class Field>
Field load(const void* field) {
    Field value;
    std::memcpy(&value, field, sizeof value);
    return value;
}

template <class Field>
void save(void* field, Field value) {
    std::memcpy(field, &value, sizeof value);
}

// The low bytes of a number, as many as the field has.
void save_low(void* field, std::size_t size, long long value) {
    if (size == sizeof(std::int32_t)) return save(field, static_cast<std::int32_t>(value));
    const std::size_t kept = std::min(size, sizeof value);
    const std::size_t low = std::endian::native == std::endian::big ? sizeof value - kept : 0;
    std::memcpy(field, reinterpret_cast<const char*>(&value) + low, kept);
}

int integer_from_text(void* field, unsigned int size, const char* text) {
    if (field == nullptr || text == nullptr) return -1;
    save_low(field, size, decimal(text, std::strtoll));
    return 0;
}

int flag_from_text(void* field, unsigned int size, const char* text) {
    if (field == nullptr || text == nullptr) return -1;
    const auto low = static_cast<unsigned char>(decimal(text, std::strtol));
    if (size != 0) *static_cast<unsigned char*>(field) = low != 0 ? 1 : 0;
    return 0;
}

int text_from_text(void* field, unsigned int size, const char* text) {
    if (field == nullptr || text == nullptr) return -1;
    if (size == 0) return 0;
    const std::size_t length = ::strnlen(text, size - 1);
    auto* const kept = static_cast<char*>(field);
    std::memcpy(kept, text, length);
    kept[length] = '\0';
    ::trim_right(kept);
    return 0;
}

// Writes the line of a value, cut as snprintf would cut it. value(field) is called only when the
// pointers are known not to be NULL.
template <class Value>
int line_from(char* line, unsigned int capacity, const char* key, const void* field, Value value) {
    if (line == nullptr || key == nullptr || field == nullptr) return -1;
    if (capacity == 0) return 0;
    BoundedText text(line, capacity);
    text << key << '=' << value(field) << '\n';
    text.c_str();
    return 0;
}

int line_from_int32(char* line, unsigned int capacity, const char* key, const void* field) {
    return line_from(line, capacity, key, field, load<std::int32_t>);
}

int line_from_uint16(char* line, unsigned int capacity, const char* key, const void* field) {
    return line_from(line, capacity, key, field, load<std::uint16_t>);
}

int line_from_flag(char* line, unsigned int capacity, const char* key, const void* field) {
    return line_from(line, capacity, key, field,
                     [](const void* flag) { return load<unsigned char>(flag) != 0 ? '1' : '0'; });
}

int line_from_text(char* line, unsigned int capacity, const char* key, const void* field) {
    return line_from(line, capacity, key, field,
                     [](const void* text) { return static_cast<const char*>(text); });
}

}  // namespace

// The compiler lets every function type be cast to void (*)() and from there to any other.
#define ENTRY(function) reinterpret_cast<pref_convertor>(reinterpret_cast<void (*)()>(function))

const pref_convertor pref_data_convertor[8] = {
    /* PREF_TYPE_INT */ ENTRY(integer_from_text),    ENTRY(line_from_int32),
    /* PREF_TYPE_BOOL */ ENTRY(flag_from_text),      ENTRY(line_from_flag),
    /* PREF_TYPE_STRING */ ENTRY(text_from_text),    ENTRY(line_from_text),
    /* PREF_TYPE_UINT16 */ ENTRY(integer_from_text), ENTRY(line_from_uint16),
};
