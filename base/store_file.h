// Opening files in directories whose owners change them at any moment.
//
// A file's name may belong to a FIFO, a device, a socket or a link to anywhere instead. So
//   - no open waits for the other end of a FIFO;
//   - only regular files are read, and nothing else behind a link is even opened;
//   - nothing is created, emptied or written through a link as last component, unless root or the
//     process's effective user owns the link. Links before the last component are followed;
//   - a file that is under a lease of another process is waited for, for a second at most.
#ifndef TSMAIL_BASE_STORE_FILE_H
#define TSMAIL_BASE_STORE_FILE_H

#include <fcntl.h>

#include "base/fd.h"

namespace Tessaly::base {

// Opens a regular file for reading. Nothing with errno if it cannot be opened, EISDIR for a
// directory, EINVAL for another kind of file.
Fd open_for_reading(const char* path);

// Opens a file for writing. flags: O_WRONLY or O_RDWR, and any of O_CREAT (mode 0666 less the
// umask), O_TRUNC and O_APPEND. EACCES for another person's link.
Fd open_for_writing(const char* path, int flags);

// The same for a file that is also read, which must therefore be a regular one.
Fd open_for_update(const char* path, int flags);

// Opens a directory whose entries are going to be removed, by the rule for writing.
Fd open_for_emptying(const char* path);

}  // namespace Tessaly::base

#endif
