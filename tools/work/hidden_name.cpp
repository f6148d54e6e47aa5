#include "tools/work/hidden_name.h"

#include <algorithm>
#include <ctime>

#include "base/store_names.h"

namespace Tessaly::tool {

namespace {

using std::string;
using std::string_view;

constexpr string_view kClaimed = ".swept";
constexpr std::size_t kDayDigits = 8;
constexpr string_view kDigits = "0123456789", kHexDigits = "0123456789abcdef";

bool consists_of(string_view text, string_view characters) {
    return !text.empty() && text.find_first_not_of(characters) == string_view::npos;
}

}  // namespace

std::optional<HiddenName> hidden_name_in(string_view name) {
    if (!name.starts_with(names::kDeletedPrefix)) return std::nullopt;
    name.remove_prefix(names::kDeletedPrefix.size());
    const bool claimed = name.ends_with(kClaimed);
    if (claimed) name.remove_suffix(kClaimed.size());
    const auto first = name.find('.'), last = name.rfind('.');
    if (first != kDayDigits || last <= first + 1) return std::nullopt;
    const string_view day = name.substr(0, first), number = name.substr(last + 1);
    if (!consists_of(day, kDigits) || !consists_of(number, kHexDigits)) return std::nullopt;
    return HiddenName{string(day), string(name.substr(first + 1, last - first - 1)), claimed};
}

string claimed_name(string_view name) { return string(name).append(kClaimed); }

string unclaimed_name(string_view name) {
    if (name.ends_with(kClaimed)) name.remove_suffix(kClaimed.size());
    return string(name);
}

string hidden_prefix(string_view base) {
    return string(names::kDeletedPrefix).append(today()).append(".").append(base).append(".");
}

string today() {
    const std::time_t now = std::time(nullptr);
    struct tm parts;
    char text[16];
    if (::gmtime_r(&now, &parts) == nullptr) return "";
    return {text, std::strftime(text, sizeof text, "%Y%m%d", &parts)};
}

}  // namespace Tessaly::tool
