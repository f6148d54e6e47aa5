// SignalHold, SignalBlock - prevent signals from ending the process between steps that belong
// together.
#ifndef TSMAIL_TOOLS_WORK_SIGNALS_H
#define TSMAIL_TOOLS_WORK_SIGNALS_H

#include <csignal>

#include "tools/cli/descriptors.h"

namespace Tessaly::tool {

// Blocks SIGHUP, SIGINT, SIGQUIT and SIGTERM until the process ends. Until a message is in its
// folder, a signal ends the work: the functions here throw a Failure with code kExitTryAgain. After
// that, signals have no effect.
class SignalHold {
  public:
    SignalHold();

    // Readable when a signal has come.
    int fd() const { return signals_.get(); }
    // Waits until the descriptor can be read, but not longer than this. False if it cannot be.
    bool wait_readable(int fd, int milliseconds) const;
    // Waits for some milliseconds.
    void wait_milliseconds(int milliseconds) const;
    // Throws if a signal has come.
    void check() const { wait_milliseconds(0); }

  private:
    Fd signals_;
};

// Blocks the same signals until the object's end; one that has come takes effect then.
class SignalBlock {
  public:
    SignalBlock();
    ~SignalBlock();
    SignalBlock(const SignalBlock&) = delete;
    SignalBlock& operator=(const SignalBlock&) = delete;

  private:
    sigset_t before_;
};

}  // namespace Tessaly::tool

#endif
