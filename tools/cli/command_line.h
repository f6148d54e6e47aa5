// The command line as a whole: which verb runs, help, and what is said of a mistake.
#ifndef TSMAIL_TOOLS_CLI_COMMAND_LINE_H
#define TSMAIL_TOOLS_CLI_COMMAND_LINE_H

#include "tools/cli/session.h"

namespace Tessaly::tool {

// Reads the command line into the session. Returns true if there is a verb to run; false if nothing
// is left to do (help, version). A Failure with code kExitUsage for words that the grammar does not
// allow.
bool read_command_line(int argc, const char* const* argv, Session& session);

}  // namespace Tessaly::tool

#endif
