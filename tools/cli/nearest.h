// nearest - the word that a user may have meant.
#ifndef TSMAIL_TOOLS_CLI_NEAREST_H
#define TSMAIL_TOOLS_CLI_NEAREST_H

#include <string>
#include <string_view>
#include <vector>

namespace Tessaly::tool {

// The candidate that differs from the word by the fewest typing mistakes; empty if that is too
// many.
std::string nearest(std::string_view word, const std::vector<std::string>& candidates);

}  // namespace Tessaly::tool

#endif
