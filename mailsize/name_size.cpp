#include "mailsize/name_size.h"

#include <tessaly/mailstore.h>

#include <algorithm>
#include <cstring>

#include "base/text.h"
#include "mailsize/number.h"

namespace Tessaly::mailsize {

namespace {

using std::string_view;

constexpr string_view kGroup = ",#F";
constexpr string_view kGroupEnd = "#E";
constexpr string_view kSize = "#S";

// The text behind the first ",#F" of the name, or nullptr.
const char* behind_group(const char* name) {
    for (const char* comma = std::strchr(name, ','); comma != nullptr;
         comma = std::strchr(comma + 1, ',')) {
        if (comma[1] == '#' && comma[2] == 'F') return comma + kGroup.size();
    }
    return nullptr;
}

// The size in what stands behind ",#F" if that is as the library writes it, "#S#1234#E" and no
// other '#'; else -1.
long long size_as_written(const char* text) {
    constexpr std::ptrdiff_t kMostDigits = 18;  // which cannot overflow
    if (text[0] != '#' || text[1] != 'S' || text[2] != '#') return -1;
    const char* const digits = text + 3;
    const char* at = digits;
    unsigned long long size = 0;
    for (unsigned digit; (digit = static_cast<unsigned char>(*at) - unsigned{'0'}) <= 9; ++at) {
        size = 10 * size + digit;
    }
    if (at == digits || at - digits > kMostDigits) return -1;
    if (at[0] != '#' || at[1] != 'E' || std::strchr(at + 2, '#') != nullptr) return -1;
    return static_cast<long long>(size);
}

// The size in what stands behind ",#F" in any form.
long long size_behind_group(const char* text) {
    const char* size = nullptr;
    bool complete = false;
    for (const char* at = text; *at != '\0'; ++at) {
        if (*at != '#') continue;
        if (at[1] == 'S') size = at + 2;
        if (at[1] == 'E') complete = true;
    }
    if (size == nullptr || !complete) return -1;
    // As strtoll reads it; the library writes one more '#'.
    TextCursor cursor(*size == '#' ? size + 1 : size);
    return scan_number(cursor).as_signed();
}

}  // namespace

long long size_in_name(const char* name) {
    const char* const text = behind_group(name);
    if (text == nullptr) return -1;
    const long long written = size_as_written(text);
    return written >= 0 ? written : size_behind_group(text);
}

bool is_tagged(string_view name) {
    const auto group = name.find(kGroup);
    return group != string_view::npos &&
           name.find(kGroupEnd, group + kGroup.size()) != string_view::npos;
}

const char* tagged_name(string_view name, long long size, NameBuffer& buffer) {
    auto place = name.find(",U");
    if (place == string_view::npos) place = name.find(":2");
    place = std::min(place, name.size());
    base::BoundedText text(buffer, sizeof buffer);
    text << name.substr(0, place) << kGroup << kSize << '#' << size << kGroupEnd
         << name.substr(place);
    return text.cut() ? nullptr : text.c_str();
}

string_view untagged_name(string_view name, NameBuffer& buffer) {
    const auto end = name.find(kGroupEnd, name.find(kGroup));
    const auto group = name.rfind(kGroup, end);
    base::BoundedText text(buffer, sizeof buffer);
    text << name.substr(0, group) << name.substr(end + kGroupEnd.size());
    return text.view();
}

}  // namespace Tessaly::mailsize

long long get_maildir_msg_len_from_name(const char* name) {
    return name == nullptr ? -1 : Tessaly::mailsize::size_in_name(name);
}
