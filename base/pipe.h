// Writing to a pipe whose reader may have gone.
#ifndef TSMAIL_BASE_PIPE_H
#define TSMAIL_BASE_PIPE_H

#include <string_view>

namespace Tessaly::base {

// write_all for a pipe: without a reader it fails with EPIPE and raises no SIGPIPE. The process's
// handlers, the thread's signal mask and a SIGPIPE that was pending before are left as they were.
bool write_pipe(int fd, std::string_view text);

}  // namespace Tessaly::base

#endif
