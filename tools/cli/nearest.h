// nearest - what somebody may have meant.
#ifndef TSMAIL_TOOLS_CLI_NEAREST_H
#define TSMAIL_TOOLS_CLI_NEAREST_H

#include <string>
#include <string_view>
#include <vector>

namespace Tessaly::tool {

// The candidate that takes the fewest typing mistakes to become the word; empty if that is too
// many.
std::string nearest(std::string_view word, const std::vector<std::string>& candidates);

}  // namespace Tessaly::tool

#endif
