// Hands bytes, and perhaps a descriptor, to another process.
#ifndef TSMAIL_TOOLS_SPOOL_PASSING_H
#define TSMAIL_TOOLS_SPOOL_PASSING_H

#include <sys/types.h>

#include <cstddef>

#include "tools/cli/descriptors.h"

namespace Tessaly::tool {

// False if not all bytes could be sent: the other process is gone.
bool send_with(int socket, const void* bytes, std::size_t size, int descriptor);

// Waits for up to `room` bytes and stores a descriptor that came with them. The number of bytes; 0
// at the end, -1 for an error. With `whole` it waits for all of them.
ssize_t receive_with(int socket, void* bytes, std::size_t room, Fd& descriptor, bool whole = false);

}  // namespace Tessaly::tool

#endif
