// SignalHold - keeps a request to end from striking between steps that belong together.
#ifndef TSMAIL_TOOLS_WORK_SIGNALS_H
#define TSMAIL_TOOLS_WORK_SIGNALS_H

#include "tools/cli/descriptors.h"

namespace Tessaly::tool {

// From its construction to the end of the process SIGHUP, SIGINT, SIGQUIT and SIGTERM wait to be
// asked for. Until mail stands in a folder they end the work (the waits here throw a Failure with
// code kExitTryAgain); after that they are too late.
class SignalHold {
  public:
    SignalHold();

    // Readable when a signal has come.
    int fd() const { return signals_.get(); }
    // Waits until the descriptor can be read.
    void wait_readable(int fd) const;
    // Waits a moment.
    void wait_milliseconds(int milliseconds) const;
    // Throws if a signal has come.
    void check() const { wait_milliseconds(0); }

  private:
    Fd signals_;
};

}  // namespace Tessaly::tool

#endif
