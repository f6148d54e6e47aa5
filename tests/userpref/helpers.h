// Helpers of the preference tests.
#ifndef TSMAIL_TESTS_USERPREF_HELPERS_H
#define TSMAIL_TESTS_USERPREF_HELPERS_H

#include <gtest/gtest.h>
#include <tessaly/userpref.h>

#include <cstring>
#include <string>
#include <string_view>

namespace prefs {

inline const char* const kUser = "ann@site.test";
inline const std::string kHome = "/var/spool/home/site.test/ann~site.test";
inline const std::string kDir = kHome + "/pref";
inline const std::string kFile = kDir + "/ann~site.test.pref";

inline user_pref defaults() {
    user_pref p;
    get_default_user_pref(&p);
    return p;
}

// A record of nothing but this byte.
inline user_pref filled_with(int byte) {
    user_pref p;
    std::memset(&p, byte, sizeof p);
    return p;
}

inline const pref_property& row_of(std::string_view key) {
    const pref_property* row = pref_properties;
    while (row->name != nullptr && key != row->name) ++row;
    if (row->name == nullptr) throw std::invalid_argument("no such key: " + std::string(key));
    return *row;
}

inline pref_text_to_field text_to_field(unsigned type) {
    return reinterpret_cast<pref_text_to_field>(
        reinterpret_cast<void (*)()>(pref_data_convertor[2 * type]));
}
inline pref_field_to_text field_to_text(unsigned type) {
    return reinterpret_cast<pref_field_to_text>(
        reinterpret_cast<void (*)()>(pref_data_convertor[2 * type + 1]));
}

inline void* field_of(user_pref& p, const pref_property& row) {
    return reinterpret_cast<char*>(&p) + row.offset;
}

// The line of one preference, as the converters write it into a buffer of any size.
inline std::string line_of(user_pref p, const pref_property& row) {
    char line[2048] = "";
    field_to_text(row.type)(line, sizeof line, row.name, field_of(p, row));
    return line;
}
// The same without key and line end.
inline std::string value_of(const user_pref& p, const pref_property& row) {
    const std::string line = line_of(p, row);
    const std::size_t key = std::strlen(row.name) + 1;
    return line.substr(key, line.size() - key - 1);
}

// Two records hold the same text or number in every field; bytes behind a text's end do not count.
inline testing::AssertionResult same(const user_pref& a, const user_pref& b) {
    auto result = testing::AssertionSuccess();
    for (const pref_property* row = pref_properties; row->name != nullptr; ++row) {
        const std::string in_a = line_of(a, *row);
        const std::string in_b = line_of(b, *row);
        if (in_a != in_b) result = testing::AssertionFailure() << in_a << in_b;
    }
    return result;
}

}  // namespace prefs

#endif
