// Helpers for paths within a mailbox.
#ifndef TSMAIL_TOOLS_WORK_PATHS_H
#define TSMAIL_TOOLS_WORK_PATHS_H

#include <string>
#include <string_view>
#include <vector>

namespace Tessaly::tool {

// The path of a name in a directory.
std::string in(const std::string& directory, std::string_view name);

// The names in a directory except "." and "..", in byte order; empty if there is no such directory.
// A Failure if it cannot be read.
std::vector<std::string> names_in(const std::string& directory);

}  // namespace Tessaly::tool

#endif
