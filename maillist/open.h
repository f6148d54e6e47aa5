// Opening files by their path.
#ifndef TSMAIL_MAILLIST_OPEN_H
#define TSMAIL_MAILLIST_OPEN_H

#include <fcntl.h>

#include <string>

#include "base/fd.h"

namespace Tessaly::maillist {

// Opens close-on-exec; a file that is created gets the mode 0666 less the umask.
inline base::Fd open_file(const std::string& path, int flags) {
    return base::Fd(base::retry([&] { return ::open(path.c_str(), flags | O_CLOEXEC, 0666); }));
}

}  // namespace Tessaly::maillist

#endif
