#include "tools/spool/companion.h"

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "tools/cli/failure.h"
#include "tools/cli/text.h"

namespace Tessaly::tool {

namespace {

void fail(const Channel& channel, const char* text, int code) {
    channel.send({{"kind", item::kFailed}, {"text", text}, {"code", code}});
}

// An exception while reporting ends the process, without a word: the reader is gone, or tells of
// it.
void run(const std::function<void(const Channel&)>& work, int socket) noexcept try {
    const Channel channel(socket);
    try {
        work(channel);
    } catch (const Failure& failure) {
        fail(channel, failure.what(), failure.code());
    } catch (const std::bad_alloc&) {
        fail(channel, "out of memory", kExitTryAgain);
    } catch (const std::exception& e) {
        fail(channel, e.what(), kExitSoftware);
    }
} catch (...) {
    ::_exit(kExitTryAgain);
}

}  // namespace

Companion::Companion(const std::function<void(const Channel&)>& work) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        throw system_failure("a channel to another process");
    }
    socket_.reset(ends[0]);
    const Fd other(ends[1]);
    const pid_t parent = ::getpid();
    process_ = ::fork();
    if (process_ < 0) throw system_failure("starting a process");
    if (process_ != 0) return;
    socket_.reset();
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(kExitTryAgain);
    run(work, other.get());
    ::_exit(kExitOk);
}

Companion::~Companion() {
    ::kill(process_, SIGKILL);
    retry([&] { return ::waitpid(process_, nullptr, 0); });
}

}  // namespace Tessaly::tool
