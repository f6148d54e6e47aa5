// The parts of a message's file name.
#ifndef TSMAIL_TOOLS_WORK_MESSAGE_NAME_H
#define TSMAIL_TOOLS_WORK_MESSAGE_NAME_H

#include <string>
#include <string_view>

namespace Tessaly::tool {

struct NameParts {
    std::string unique;  // what stays while mail readers change the flags
    std::string flags;   // letters such as S for seen, as mail readers append them
};
NameParts parts_of(std::string_view name);

// The name with these flags, in the order of the alphabet and each once. Without flags there is no
// suffix.
std::string name_with_flags(const NameParts& parts);

// The flags with some added and others taken away.
std::string changed_flags(const std::string& flags, std::string_view added,
                          std::string_view removed);

}  // namespace Tessaly::tool

#endif
