// QuotaDaemon - telling the quota daemon of changes, without waiting for it more than once.
#ifndef TSMAIL_TOOLS_WORK_QUOTA_DAEMON_H
#define TSMAIL_TOOLS_WORK_QUOTA_DAEMON_H

#include <string>

namespace Tessaly::tool {

// One for each run of the program. A daemon that is not there is no matter: the size files are what
// counts, and it reads them when it starts. One that is stopped with its queue full delays the
// caller for some seconds. In both cases it is told nothing more. No lock may be held meanwhile.
class QuotaDaemon {
  public:
    void tell(const std::string& folder, long long change);

  private:
    bool gave_up_ = false;
};

}  // namespace Tessaly::tool

#endif
