// Hands bytes, and perhaps a descriptor, to another process.
#ifndef TSMAIL_TOOLS_CLI_PASSING_H
#define TSMAIL_TOOLS_CLI_PASSING_H

#include <sys/types.h>

#include <cstddef>

#include "tools/cli/descriptors.h"

namespace Tessaly::tool {

// False with errno if not all bytes could be sent: EPIPE or ECONNRESET if the other process is
// gone. `flags` as for sendmsg().
bool send_with(int socket, const void* bytes, std::size_t size, int descriptor, int flags = 0);

// Waits for up to `room` bytes and stores a descriptor that came with them. Returns the number of
// bytes; 0 at the end; -1 with errno for an error: EMSGSIZE for a packet of more bytes, EMFILE for
// a descriptor that this process has no room for; the bytes are stored then. `flags` as for
// recvmsg(): MSG_WAITALL waits for all of them.
ssize_t receive_with(int socket, void* bytes, std::size_t room, Fd& descriptor, int flags = 0);

}  // namespace Tessaly::tool

#endif
