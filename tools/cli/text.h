// Texts in the form in which people see them.
#ifndef TSMAIL_TOOLS_CLI_TEXT_H
#define TSMAIL_TOOLS_CLI_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Tessaly::tool {

// The text with every byte that is not printable UTF-8 written as \xNN: control characters, invalid
// sequences, and characters that are invisible or change the writing direction. Names in a store
// come from strangers; a terminal must not act on them.
std::string printable(std::string_view text);

// The columns that the text takes on a terminal. A combining mark takes none, an ideograph two.
std::size_t width_of(std::string_view text);

// "1 message", "2 messages".
std::string counted(std::uint64_t number, const char* thing);

// A size in binary units: "0 B", "1023 B", "1.0 KiB", "12.3 MiB".
std::string size_text(std::uint64_t bytes);

// "1 message", "2 messages".
std::string messages_text(std::uint64_t number);

// Whether the text is UTF-8.
bool is_utf8(std::string_view text);

// Whether the text holds an ASCII control character, NUL included.
bool has_control_character(std::string_view text);

// The text in the form in which arguments are compared: lower case, '-' for '_'.
std::string folded(std::string_view text);

}  // namespace Tessaly::tool

#endif
