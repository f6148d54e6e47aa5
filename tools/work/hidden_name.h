// The names under which folders and homes wait for a sweep: ".deleted.<day>.<old name>.<number>".
#ifndef TSMAIL_TOOLS_WORK_HIDDEN_NAME_H
#define TSMAIL_TOOLS_WORK_HIDDEN_NAME_H

#include <optional>
#include <string>
#include <string_view>

namespace Tessaly::tool {

struct HiddenName {
    std::string day;   // as 20240229
    std::string base;  // the old name
    bool claimed;      // a sweep has begun to remove it: it cannot be restored any more
    bool operator==(const HiddenName&) const = default;
};

// The parts of such a name; nothing for any other name.
std::optional<HiddenName> hidden_name_in(std::string_view name);

// The name that a sweep gives to a directory before it removes what is in it.
std::string claimed_name(std::string_view name);
// The name that it had before, or the same name.
std::string unclaimed_name(std::string_view name);

// The first part of a new name, which a number makes complete.
std::string hidden_prefix(std::string_view base);
// Today as it stands in the names.
std::string today();

}  // namespace Tessaly::tool

#endif
