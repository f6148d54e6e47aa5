// tsmail - the administrator's command: start, one verb, exit code.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <new>

#include "tools/cli/command_line.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"

namespace Tessaly::tool {

namespace {

constexpr mode_t kPrivate = 077;

// If a standard stream is missing, the next file that is opened, perhaps a mail file, would take
// its number. The replacement answers with an error, because missing input is not empty input.
void fill_standard_streams() {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(stream, F_GETFD) >= 0) continue;
        // open() returns the lowest free number, which is this one.
        [[maybe_unused]] const int fd =
            ::open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
}

// A reader that has gone and a file size limit become ordinary errors of the call.
void take_errors_instead_of_signals() {
    std::signal(SIGCHLD, SIG_DFL);  // if the caller ignores it, waitpid() fails
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
}

// A failure of the work is told by its code, everything else by the signal.
int end_without_reader(int code) {
    if (code != kExitOk) return code;
    raise_pipe_signal();
    return kExitIo;  // the signal is blocked
}

int run_verb(int argc, const char* const* argv, Session& session) {
    int code = kExitOk;
    if (read_command_line(argc, argv, session)) {
        if (session.quiet) session.out.silence();
        code = session.verb();
    }
    if (session.out.finish()) return code;
    if (errno == EPIPE) return end_without_reader(code);
    session.error("standard output: " + error_text(errno));
    return code == kExitOk ? kExitIo : code;
}

int run(int argc, const char* const* argv) {
    Session session{::umask(kPrivate), Output(STDOUT_FILENO)};
    try {
        return run_verb(argc, argv, session);
    } catch (const Failure& failure) {
        session.out.finish();
        session.error(failure.what(), failure.status());
        return failure.code();
    } catch (const std::bad_alloc&) {
        session.error("out of memory");
        return kExitTryAgain;
    } catch (const std::exception& e) {
        session.error(std::string("internal error: ") + printable(e.what()));
        return kExitSoftware;
    }
}

}  // namespace

}  // namespace Tessaly::tool

int main(int argc, char** argv) {
    Tessaly::tool::fill_standard_streams();
    Tessaly::tool::take_errors_instead_of_signals();
    return Tessaly::tool::run(argc, argv);
}
