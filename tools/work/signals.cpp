#include "tools/work/signals.h"

#include <poll.h>
#include <sys/signalfd.h>

#include <csignal>

#include "tools/cli/failure.h"

namespace Tessaly::tool {

namespace {

// Waits for an event on a descriptor (-1: no descriptor) or for a signal. False if the time is
// over.
bool wait(int signals, int fd, int milliseconds) {
    pollfd waited[] = {{signals, POLLIN, 0}, {fd, POLLIN, 0}};
    const int ready = retry([&] { return ::poll(waited, 2, milliseconds); });
    if (ready < 0) throw system_failure("poll");
    if (waited[0].revents != 0) throw Failure(kExitTryAgain, "ended by a signal");
    return ready > 0;
}

sigset_t ending_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) sigaddset(&set, signal);
    return set;
}

}  // namespace

SignalHold::SignalHold() {
    const sigset_t held = ending_signals();
    ::sigprocmask(SIG_BLOCK, &held, nullptr);
    signals_.reset(::signalfd(-1, &held, SFD_CLOEXEC));
    if (!signals_) throw system_failure("signalfd");
}

bool SignalHold::wait_readable(int fd, int milliseconds) const {
    return wait(signals_.get(), fd, milliseconds);
}

void SignalHold::wait_milliseconds(int milliseconds) const {
    wait(signals_.get(), -1, milliseconds);
}

SignalBlock::SignalBlock() {
    const sigset_t held = ending_signals();
    ::sigprocmask(SIG_BLOCK, &held, &before_);
}

SignalBlock::~SignalBlock() { ::sigprocmask(SIG_SETMASK, &before_, nullptr); }

}  // namespace Tessaly::tool
