// The installed manual, for "tsmail help".
#ifndef TSMAIL_TOOLS_CLI_MANUAL_H
#define TSMAIL_TOOLS_CLI_MANUAL_H

#include <sys/types.h>

#include <string>

namespace Tessaly::tool {

// Replaces this process by man(1) with this page of section 1, under the given umask. Returns if
// standard output is not a terminal, or if man or the page is missing.
void become_manual(const std::string& page, mode_t umask);

}  // namespace Tessaly::tool

#endif
