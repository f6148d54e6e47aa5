// Modified UTF-7, in which Maildir++ writes the names of folders.
#ifndef TSMAIL_TOOLS_WORK_UTF7_H
#define TSMAIL_TOOLS_WORK_UTF7_H

#include <optional>
#include <string>
#include <string_view>

namespace Tessaly::tool {

// A name in UTF-8 as modified UTF-7. '.' separates names in Maildir++, so it is encoded too.
// Nothing for a name that is not UTF-8.
std::optional<std::string> to_utf7(std::string_view name);

// The other way round. Nothing for a text that is not modified UTF-7.
std::optional<std::string> from_utf7(std::string_view text);

}  // namespace Tessaly::tool

#endif
