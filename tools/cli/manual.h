// The installed manual, for "tsmail help".
#ifndef TSMAIL_TOOLS_CLI_MANUAL_H
#define TSMAIL_TOOLS_CLI_MANUAL_H

#include <sys/types.h>

#include <string>

namespace Tessaly::tool {

// Becomes man(1) with this page of section 1, with the umask given. Returns if standard output is
// not a terminal, or there is no man or no such page.
void become_manual(const std::string& page, mode_t umask);

}  // namespace Tessaly::tool

#endif
