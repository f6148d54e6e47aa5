#include "tools/work/message_name.h"

#include <set>

namespace Tessaly::tool {

namespace {

using std::string;
using std::string_view;

constexpr string_view kInfo = ":2,";

}  // namespace

NameParts parts_of(string_view name) {
    const auto at = name.rfind(kInfo);
    if (at == string_view::npos) return {string(name), ""};
    return {string(name.substr(0, at)), string(name.substr(at + kInfo.size()))};
}

string name_with_flags(const NameParts& parts) {
    const std::set<char> letters(parts.flags.begin(), parts.flags.end());
    if (letters.empty()) return parts.unique;
    return string(parts.unique).append(kInfo).append(letters.begin(), letters.end());
}

string changed_flags(const string& flags, string_view added, string_view removed) {
    std::set<char> letters(flags.begin(), flags.end());
    letters.insert(added.begin(), added.end());
    for (const char letter : removed) letters.erase(letter);
    return {letters.begin(), letters.end()};
}

}  // namespace Tessaly::tool
