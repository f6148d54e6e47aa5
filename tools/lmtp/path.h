// The addresses of the commands MAIL and RCPT.
#ifndef TSMAIL_TOOLS_LMTP_PATH_H
#define TSMAIL_TOOLS_LMTP_PATH_H

#include <optional>
#include <string>
#include <string_view>

namespace Tessaly::tool::lmtp {

struct Path {
    std::string written;  // as it came, without the angle brackets and a source route
    std::string address;  // with a quoted local part as it is meant; empty for "<>"
};

// Reads the path at the beginning of the text and drops it from there. Nothing if there is none, or
// if a quoted local part holds an '@'.
std::optional<Path> read_path(std::string_view& text);

// Whether the text is ASCII, and whether it is UTF-8.
bool is_ascii(std::string_view text);
bool is_utf8(std::string_view text);

}  // namespace Tessaly::tool::lmtp

#endif
