// What a worker of the service does, as the mailboxes' owner.
#ifndef TSMAIL_TOOLS_LMTP_WORKER_H
#define TSMAIL_TOOLS_LMTP_WORKER_H

#include <sys/types.h>

#include <cstddef>
#include <optional>

#include "tools/cli/failure.h"

namespace Tessaly::tool::lmtp {

// What holds for each message.
struct Rules {
    mode_t callers_umask = 077;
    bool new_folders = false;                 // make the folder of a tag
    std::optional<ExitCode> over_quota = {};  // the answer for a mailbox over its quota
};

// A task is a packet on the worker's socket: {"do", "address", "ident"} in MessagePack. "check":
// may the mailbox get mail? "deliver": the message is the descriptor that comes with the packet.
// "mark": the mailbox needs a recount. The answers are those of a Report.
constexpr std::size_t kLongestTask = 4096;

// Serves tasks until the socket's other end is closed. With `refused`, each task fails.
void serve(int socket, const Rules& rules, const std::optional<Failure>& refused) noexcept;

}  // namespace Tessaly::tool::lmtp

#endif
