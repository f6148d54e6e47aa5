#include "tools/cli/failure.h"

#include <algorithm>
#include <iterator>
#include <system_error>

namespace Tessaly::tool {

namespace {

struct ErrorRow {
    int error;
    ExitCode code;
};

// Whoever hands mail over keeps it and tries again on 75, and gives it back to the sender on the
// others; so what passes by itself is 75, and only that. Errors without a row are I/O errors.
constexpr ErrorRow kErrors[] = {
    // A lack of something that others may give back.
    {ENOSPC, kExitTryAgain},
    {EDQUOT, kExitTryAgain},
    {EFBIG, kExitTryAgain},
    {ENOMEM, kExitTryAgain},
    {EMFILE, kExitTryAgain},
    {ENFILE, kExitTryAgain},
    {ENOLCK, kExitTryAgain},
    {EAGAIN, kExitTryAgain},
    {EBUSY, kExitTryAgain},
    {EINTR, kExitTryAgain},
    {ETXTBSY, kExitTryAgain},
    {EDEADLK, kExitTryAgain},
    {EEXIST, kExitTryAgain},
    // A folder that was removed meanwhile.
    {ENOENT, kExitTryAgain},
    // A server that is away.
    {ESTALE, kExitTryAgain},
    {ETIMEDOUT, kExitTryAgain},
    {ENOTCONN, kExitTryAgain},
    {ECONNREFUSED, kExitTryAgain},
    {ECONNRESET, kExitTryAgain},
    {ECONNABORTED, kExitTryAgain},
    {EHOSTDOWN, kExitTryAgain},
    {EHOSTUNREACH, kExitTryAgain},
    {ENETDOWN, kExitTryAgain},
    {ENETUNREACH, kExitTryAgain},
    {EREMOTEIO, kExitTryAgain},
    // Something that an administrator has to change.
    {EACCES, kExitCannotCreate},
    {EPERM, kExitCannotCreate},
    {EROFS, kExitCannotCreate},
    {ENOTDIR, kExitCannotCreate},
    {EISDIR, kExitCannotCreate},
    {ELOOP, kExitCannotCreate},
    {ENAMETOOLONG, kExitCannotCreate},
    {EXDEV, kExitCannotCreate},
    {EMLINK, kExitCannotCreate},
    {EINVAL, kExitCannotCreate},
    {EOPNOTSUPP, kExitCannotCreate},
};

}  // namespace

ExitCode exit_code_of(int error) {
    const auto* row = std::find_if(std::begin(kErrors), std::end(kErrors),
                                   [error](const ErrorRow& r) { return r.error == error; });
    return row == std::end(kErrors) ? kExitIo : row->code;
}

std::string error_text(int error) { return std::generic_category().message(error); }

Failure system_failure(std::string_view what, int error) {
    return {exit_code_of(error), std::string(what) + ": " + error_text(error), error};
}

Failure for_queue(const Failure& failure) {
    const int error = failure.error();
    const bool passes = failure.code() == kExitCannotCreate &&
                        (error == EACCES || error == EPERM || error == EROFS);
    return {passes ? kExitTryAgain : failure.code(), failure.what(), error};
}

}  // namespace Tessaly::tool
