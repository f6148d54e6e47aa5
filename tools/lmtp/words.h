// The words of a command line of SMTP and LMTP.
#ifndef TSMAIL_TOOLS_LMTP_WORDS_H
#define TSMAIL_TOOLS_LMTP_WORDS_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Tessaly::tool::lmtp {

// Whether two words are the same in any letter case.
bool equal(std::string_view a, std::string_view b);
// Takes the prefix, in any letter case, off the text. False if the text begins otherwise.
bool drop_prefix(std::string_view& text, std::string_view prefix);
// Takes the next word off the text; returns an empty one at the end.
std::string_view next_word(std::string_view& text);
// A decimal number; nothing if the text is anything else.
std::optional<std::uint64_t> number_of(std::string_view text);
// Text in the encoding xtext (RFC 3461), in which "+2B" stands for '+'.
std::string decoded_xtext(std::string_view text);

}  // namespace Tessaly::tool::lmtp

#endif
