#include "tools/work/quota_daemon.h"

#include <tessaly/mailstore.h>

#include <cerrno>

namespace Tessaly::tool {

void QuotaDaemon::tell(const std::string& folder, long long change) {
    if (gave_up_) return;
    // A name that is too long does not mean that the daemon is unavailable.
    gave_up_ = tsl_update_mail_folder_size(folder.c_str(), change) < 0 && errno != EMSGSIZE;
}

}  // namespace Tessaly::tool
