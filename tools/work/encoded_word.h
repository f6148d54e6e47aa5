// Texts beyond ASCII in the header of a message.
#ifndef TSMAIL_TOOLS_WORK_ENCODED_WORD_H
#define TSMAIL_TOOLS_WORK_ENCODED_WORD_H

#include <string>
#include <string_view>

namespace Tessaly::tool {

bool is_ascii(std::string_view text);

// The text as it is if it is ASCII; else as encoded words ("=?UTF-8?B?...?="), each on a line of
// its own. Nothing is cut within a character. The text must be UTF-8.
std::string encoded_words(std::string_view text);

// The same for the name in an address, as "Post <post@site.test>": what stands in front of the last
// '<'.
std::string encoded_address(std::string_view address);

}  // namespace Tessaly::tool

#endif
