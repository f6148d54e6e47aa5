#include "tools/work/preferences.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>

#include "base/number.h"
#include "tools/cli/failure.h"
#include "tools/cli/nearest.h"
#include "tools/cli/text.h"
#include "tools/work/folder_lock.h"

namespace Tessaly::tool {

namespace {

using std::string;
using std::string_view;

// The library writes lines of up to this many bytes, line end included; a longer one loses its end.
constexpr std::size_t kLongestLine = 510;

template <class Signature>
Signature convertor(std::size_t index) {
    return reinterpret_cast<Signature>(reinterpret_cast<void (*)()>(pref_data_convertor[index]));
}

char* field_of(user_pref& record, const pref_property& property) {
    return reinterpret_cast<char*>(&record) + property.offset;
}
const char* field_of(const user_pref& record, const pref_property& property) {
    return reinterpret_cast<const char*>(&record) + property.offset;
}

template <class Number>
Number number_in(const char* field) {
    Number number;
    std::memcpy(&number, field, sizeof number);
    return number;
}

string text_in(const char* field, const pref_property& property) {
    return {field, ::strnlen(field, property.size)};
}

// The line that represents a preference in the file.
string line_of(const user_pref& record, const pref_property& property) {
    char line[kLongestLine + 2] = "";
    convertor<pref_field_to_text>(2 * property.type + 1)(line, kLongestLine + 1, property.name,
                                                         field_of(record, property));
    return line;
}

// The preferences that result when the line is read.
user_pref read_back(string line) {
    user_pref record;
    get_default_user_pref(&record);
    using Stream = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;
    const Stream stream(::fmemopen(line.data(), line.size(), "r"), std::fclose);
    if (!stream || fill_user_pref_struct(&record, stream.get()) != 0) throw std::bad_alloc();
    return record;
}

// The largest number that the file returns unchanged.
long long largest(const pref_property& property, long long of_type) {
    const user_pref record = read_back(fmt::format("{}={}\n", property.name, of_type));
    const char* field = field_of(record, property);
    return property.type == PREF_TYPE_UINT16 ? number_in<std::uint16_t>(field)
                                             : number_in<std::int32_t>(field);
}

string allowed(const pref_property& property) {
    switch (property.type) {
        case PREF_TYPE_INT:
            return fmt::format("a whole number from {} to {}",
                               std::numeric_limits<std::int32_t>::min(),
                               largest(property, std::numeric_limits<std::int32_t>::max()));
        case PREF_TYPE_UINT16:
            return fmt::format("a whole number from 0 to {}",
                               largest(property, std::numeric_limits<std::uint16_t>::max()));
        case PREF_TYPE_BOOL:
            return "0 or 1";
        default:
            return fmt::format(
                "a text of at most {} bytes without line breaks and NUL, no white "
                "space at its end",
                std::min<std::size_t>(property.size - 1, kLongestLine - std::strlen(property.name) -
                                                             std::strlen("=\n")));
    }
}

[[noreturn]] void refuse(const pref_property& property, string_view value) {
    throw Failure(kExitData, fmt::format("{}={} is refused; allowed: {}", property.name,
                                         printable(value), allowed(property)));
}

template <class Number>
bool take_number(char* field, string_view text) {
    const auto number = base::whole_number<Number>(text);
    if (number) std::memcpy(field, &*number, sizeof *number);
    return number.has_value();
}

bool take_flag(char* field, string_view text) {
    if (text != "0" && text != "1") return false;
    *field = text == "1" ? 1 : 0;
    return true;
}

bool take_text(char* field, const pref_property& property, string_view text) {
    if (text.size() >= property.size || text.find('\0') != string_view::npos) return false;
    std::memset(field, 0, property.size);
    std::memcpy(field, text.data(), text.size());
    return true;
}

// A JSON value as people write it.
string text_of(const Json& value) {
    if (value.is_string()) return value.get<string>();
    if (value.is_boolean()) return value.get<bool>() ? "1" : "0";
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

bool fits(const pref_property& property, const Json& value) {
    switch (property.type) {
        case PREF_TYPE_STRING:
            return value.is_string();
        case PREF_TYPE_BOOL:
            return value.is_boolean() || value.is_number_integer();
        default:
            return value.is_number_integer();
    }
}

}  // namespace

std::span<const pref_property> all_preferences() {
    std::size_t count = 0;
    while (pref_properties[count].name != nullptr) ++count;
    return {pref_properties, count};
}

const pref_property& preference_named(string_view key) {
    const auto all = all_preferences();
    const auto row =
        std::find_if(all.begin(), all.end(), [key](const auto& p) { return p.name == key; });
    if (row != all.end()) return *row;
    std::vector<string> keys;
    for (const pref_property& p : all) keys.emplace_back(p.name);
    const string near = nearest(key, keys);
    throw Failure(kExitData,
                  fmt::format("there is no preference \"{}\"; {}", printable(key),
                              near.empty() ? fmt::format("there are {}", fmt::join(keys, ", "))
                                           : fmt::format("did you mean \"{}\"?", near)));
}

Preferences::Preferences() { get_default_user_pref_with_tz(&record_); }

Preferences Preferences::of(const TSMailUserId& id) {
    constexpr int kAttempts = 3;  // another process may make the file between the two looks
    const string path = id.fname(MUF_PREF_FILE);
    for (int attempt = 1;; ++attempt) {
        Preferences preferences;
        if (read_user_pref(&preferences.record_, id.address().c_str()) == 0) return preferences;
        const int error = errno;
        if (::access(path.c_str(), F_OK) != 0) {
            if (errno != ENOENT) throw system_failure(printable(path));
            return preferences;
        }
        if (error != ENOENT || attempt == kAttempts) throw system_failure(printable(path), error);
    }
}

Json Preferences::value(const pref_property& property) const {
    const char* field = field_of(record_, property);
    switch (property.type) {
        case PREF_TYPE_INT:
            return number_in<std::int32_t>(field);
        case PREF_TYPE_BOOL:
            return *field != 0;
        case PREF_TYPE_UINT16:
            return number_in<std::uint16_t>(field);
        default:
            return text_in(field, property);
    }
}

string preference_text(const Json& value) { return text_of(value); }

string Preferences::text(const pref_property& property) const { return text_of(value(property)); }

void Preferences::set(const pref_property& property, string_view text) {
    if (!take(property, text)) refuse(property, text);
}

void Preferences::set(const pref_property& property, const Json& value) {
    const string text = text_of(value);
    if (!fits(property, value)) refuse(property, text);
    set(property, string_view(text));
}

void Preferences::reset(const pref_property& property) {
    const Preferences defaults;
    std::memcpy(field_of(record_, property), field_of(defaults.record_, property), property.size);
}

bool Preferences::take(const pref_property& property, string_view text) {
    char* field = field_of(record_, property);
    bool taken = false;
    switch (property.type) {
        case PREF_TYPE_INT:
            taken = take_number<std::int32_t>(field, text);
            break;
        case PREF_TYPE_BOOL:
            taken = take_flag(field, text);
            break;
        case PREF_TYPE_UINT16:
            taken = take_number<std::uint16_t>(field, text);
            break;
        default:
            taken = take_text(field, property, text);
    }
    return taken && survives(property);
}

// Asks the library itself: writes the line and reads it back.
bool Preferences::survives(const pref_property& property) const {
    const string line = line_of(record_, property);
    if (!line.ends_with('\n')) return false;
    const user_pref record = read_back(line);
    const char* back = field_of(record, property);
    const char* field = field_of(record_, property);
    return property.type == PREF_TYPE_STRING ? text_in(back, property) == text_in(field, property)
                                             : std::memcmp(back, field, property.size) == 0;
}

// Checks every value: the file may already have had one that the library can read but not write.
void Preferences::check() const {
    for (const pref_property& property : all_preferences()) {
        if (!survives(property)) refuse(property, text(property));
    }
}

void Preferences::store(const TSMailUserId& id) const {
    check();
    errno = 0;
    if (store_user_pref(id.address().c_str(), &record_) == 0) return;
    throw system_failure("storing " + printable(id.fname(MUF_PREF_FILE)));
}

PreferencesLock::PreferencesLock(const TSMailUserId& id) {
    const string path = id.prefpath();
    if (create_pref_dir(id.address().c_str(), 1) != 0) throw system_failure(printable(path));
    lock_ = locked_directory(path);
}

}  // namespace Tessaly::tool
