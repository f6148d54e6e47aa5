// Opening files by their path.
#ifndef TSMAIL_MAILLIST_OPEN_H
#define TSMAIL_MAILLIST_OPEN_H

#include <fcntl.h>

#include <string>

#include "base/fd.h"

namespace Tessaly::maillist {

// Opens close-on-exec and does not wait, as a FIFO in a list's place must not stop the caller. A
// file that is created gets the mode 0666 less the umask.
inline base::Fd open_file(const std::string& path, int flags) {
    flags |= O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    return base::Fd(base::retry([&] { return ::open(path.c_str(), flags, 0666); }));
}

}  // namespace Tessaly::maillist

#endif
