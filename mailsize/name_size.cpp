#include "mailsize/name_size.h"

#include <tessaly/mailstore.h>

#include <algorithm>

#include "base/text.h"
#include "mailsize/number.h"

namespace Tessaly::mailsize {

namespace {

using std::string_view;

constexpr string_view kGroup = ",#F";
constexpr string_view kGroupEnd = "#E";
constexpr string_view kSize = "#S";
constexpr string_view kWrittenSize = "#S#";

// What strtoll makes of the text behind a "#S", where the library writes one more '#'.
long long size_at(string_view text) {
    if (text.starts_with('#')) text.remove_prefix(1);
    TextCursor cursor(text);
    return scan_number(cursor).as_signed();
}

// The size in what stands behind ",#F" if that is as the library writes it, "#S#1234#E" and no
// other
// '#'; else -1.
long long size_as_written(string_view text) {
    constexpr std::size_t kMostDigits = 18;  // which cannot overflow
    if (!text.starts_with(kWrittenSize)) return -1;
    text.remove_prefix(kWrittenSize.size());
    long long size = 0;
    std::size_t digits = 0;
    while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') {
        if (digits == kMostDigits) return -1;
        size = 10 * size + (text[digits++] - '0');
    }
    text.remove_prefix(digits);
    if (digits == 0 || !text.starts_with(kGroupEnd)) return -1;
    text.remove_prefix(kGroupEnd.size());
    return text.find('#') == string_view::npos ? size : -1;
}

}  // namespace

long long size_in_name(string_view name) {
    const auto group = name.find(kGroup);
    if (group == string_view::npos) return -1;
    const long long written = size_as_written(name.substr(group + kGroup.size()));
    if (written >= 0) return written;
    const char* size = nullptr;
    bool complete = false;
    const char* const end = name.data() + name.size();
    for (const char* at = name.data() + group + kGroup.size(); at < end - 1; ++at) {
        if (*at != '#') continue;
        if (at[1] == 'S') size = at + 2;
        if (at[1] == 'E') complete = true;
    }
    if (size == nullptr || !complete) return -1;
    return size_at(string_view(size, static_cast<std::size_t>(end - size)));
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
