// The exit codes, and the exception that carries one from where something fails to main.
#ifndef TSMAIL_TOOLS_CLI_FAILURE_H
#define TSMAIL_TOOLS_CLI_FAILURE_H

#include <cerrno>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace Tessaly::tool {

// The numbers of <sysexits.h>, on which mail programs agree.
enum ExitCode : int {
    kExitOk = 0,
    kExitNo = 1,             // the answer to a question is no
    kExitUsage = 64,         // words that the grammar does not allow
    kExitData = 65,          // an address, a name or a file whose content is not acceptable
    kExitNoInput = 66,       // a file to read that is missing or may not be read
    kExitNoUser = 67,        // a mailbox that was never created
    kExitUnavailable = 69,   // a part of the system that is not installed
    kExitSoftware = 70,      // a mistake of this program
    kExitCannotCreate = 73,  // no permission, or something in the way: an administrator must act
    kExitIo = 74,            // a read or write error
    kExitTryAgain = 75,      // may pass: disk or table full, no locks, no memory, a signal
};

// The exit code for a failed system call on the store.
ExitCode exit_code_of(int error);

// What ends a verb: the text for the person, the code for the caller.
class Failure : public std::runtime_error {
  public:
    Failure(ExitCode code, const std::string& message, int error = 0, std::string status = {})
        : std::runtime_error(message), code_(code), error_(error), status_(std::move(status)) {}
    ExitCode code() const { return code_; }
    // The failed system call's errno; 0 if no system call failed.
    int error() const { return error_; }
    // The enhanced status code that a mail transfer agent has to pass on, as "5.2.2"; mostly empty.
    const std::string& status() const { return status_; }

  private:
    ExitCode code_;
    int error_;
    std::string status_;
};

// "what: the system's text for the error" with the code of exit_code_of.
Failure system_failure(std::string_view what, int error = errno);
// The same failure for a mail queue. An error that an administrator can mend (no permission, a
// read-only file system) becomes "try again": on a permanent failure the queue would bounce all
// mail that arrives until then.
Failure for_queue(const Failure& failure);
// The system's text for an error number.
std::string error_text(int error);

}  // namespace Tessaly::tool

#endif
