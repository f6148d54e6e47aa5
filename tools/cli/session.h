// What the options for all verbs say, and where a verb shows its results.
#ifndef TSMAIL_TOOLS_CLI_SESSION_H
#define TSMAIL_TOOLS_CLI_SESSION_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string_view>

#include "tools/cli/output.h"

namespace Tessaly::tool {

struct Session {
    // The file mode mask that the caller of the program set. The program itself runs under 077, but
    // folders are made under the caller's.
    mode_t callers_umask;
    Output out;

    bool json = false;
    bool quiet = false;
    int verbosity = 0;
    // How long the work on one mailbox may take. No honest mailbox needs that long.
    std::chrono::seconds timeout{300};

    // The verb that the command line names, ready to run; returns the exit code, throws Failure.
    std::function<int()> verb = {};

    // A message on standard error; quiet silences a warning, not an error.
    void warn(std::string_view message) const;
    void error(std::string_view message) const;
    // One that is said only to those who want to know more.
    void detail(std::string_view message) const;
};

}  // namespace Tessaly::tool

#endif
