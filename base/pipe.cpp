#include "base/pipe.h"

#include <cerrno>
#include <csignal>
#include <ctime>

#include "base/fd.h"
#include "base/io.h"

namespace Tessaly::base {

bool write_pipe(int fd, std::string_view text) {
    // Blocked for this thread only: the signal of a write goes to the thread that writes.
    sigset_t pipe_signal;
    sigset_t pending;
    sigset_t mask;
    sigemptyset(&pipe_signal);
    sigaddset(&pipe_signal, SIGPIPE);
    sigemptyset(&pending);
    sigpending(&pending);
    pthread_sigmask(SIG_BLOCK, &pipe_signal, &mask);

    const bool written = write_all(fd, text);
    const int saved = errno;
    if (!written && saved == EPIPE && sigismember(&pending, SIGPIPE) == 0) {
        constexpr timespec at_once = {};
        retry([&] { return sigtimedwait(&pipe_signal, nullptr, &at_once); });
    }
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    errno = saved;
    return written;
}

}  // namespace Tessaly::base
