// QuotaDaemon - tells the quota daemon of changes, and waits for it at most once.
#ifndef TSMAIL_TOOLS_WORK_QUOTA_DAEMON_H
#define TSMAIL_TOOLS_WORK_QUOTA_DAEMON_H

#include <string>

namespace Tessaly::tool {

// One for each run of the program. The daemon need not run: it reads the size files when it starts.
// A daemon that is stopped with a full queue delays the caller for some seconds. In both cases it
// is told nothing more. The caller must not hold a lock meanwhile.
class QuotaDaemon {
  public:
    void tell(const std::string& folder, long long change);

  private:
    bool gave_up_ = false;
};

}  // namespace Tessaly::tool

#endif
