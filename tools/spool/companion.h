// Companion - a process beside a worker, with the rights of the command's caller.
#ifndef TSMAIL_TOOLS_SPOOL_COMPANION_H
#define TSMAIL_TOOLS_SPOOL_COMPANION_H

#include <sys/types.h>

#include <functional>

#include "tools/work/channel.h"

namespace Tessaly::tool {

// Runs `work` in a process of its own, which keeps the caller's rights and works on files outside
// of the store. A worker gets the other end of the channel. A Failure that `work` throws goes over
// the channel as an item of the kind kFailed. The process ends with this object.
class Companion {
  public:
    // A Failure if the process cannot be started.
    explicit Companion(const std::function<void(const Channel&)>& work);
    Companion(const Companion&) = delete;
    Companion& operator=(const Companion&) = delete;
    ~Companion();

    // The worker's end of the channel. Only the first call returns it.
    Fd take_socket() { return std::move(socket_); }

  private:
    Fd socket_;
    pid_t process_;
};

}  // namespace Tessaly::tool

#endif
