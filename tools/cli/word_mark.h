// Words of the command line that its parser must leave as they are.
#ifndef TSMAIL_TOOLS_CLI_WORD_MARK_H
#define TSMAIL_TOOLS_CLI_WORD_MARK_H

#include <string>
#include <string_view>

namespace Tessaly::tool {

// The letters of a message's flags. No verb has an option with one of these letters.
inline constexpr std::string_view kMessageFlags = "DFPRST";

// The word, with a mark in front if the parser would read something else into it.
std::string marked(std::string_view word);
// The word without its mark.
std::string unmarked(std::string word);

}  // namespace Tessaly::tool

#endif
