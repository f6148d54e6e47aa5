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

// On 75 a queue keeps the mail and tries again; on the other codes it bounces the mail. So errors
// that pass by themselves are 75, and no others are. Errors without a row are I/O errors.
constexpr ErrorRow kErrors[] = {
    // A shortage that ends when others free something.
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
    // A server that cannot be reached.
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
    return {passes ? kExitTryAgain : failure.code(), failure.what(), error, failure.status()};
}

}  // namespace Tessaly::tool
