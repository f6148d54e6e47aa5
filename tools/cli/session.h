// The values of the options that all verbs share, and the output that a verb writes to.
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
    // it makes folders under the caller's mask.
    mode_t callers_umask;
    Output out;

    bool json = false;
    bool quiet = false;
    int verbosity = 0;
    // How long the work on one mailbox may take. An ordinary mailbox never needs that long.
    std::chrono::seconds timeout{300};

    // The verb that the command line names, ready to run; returns the exit code, throws Failure.
    std::function<int()> verb = {};

    // Writes a message to standard error; `quiet` silences a warning, but not an error.
    void warn(std::string_view message) const;
    void error(std::string_view message) const;
    // The same for a failure with an enhanced status code. The code then takes the place of the
    // program's name, because a mail transfer agent looks for it at the beginning.
    void error(std::string_view message, std::string_view status) const;
    // Writes a message that only a higher verbosity shows.
    void detail(std::string_view message) const;
};

}  // namespace Tessaly::tool

#endif
