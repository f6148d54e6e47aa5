// Opening files in directories whose owners change them at any moment.
//
// A file's name may belong to a FIFO, a device, a socket or a link to anywhere instead. So no open
// waits for a FIFO's other end, what is read is a regular file (nothing else behind a link is even
// opened), and nothing is created, emptied or written through a link as last component that a third
// person made: the link's owner must be root or the process's effective user. Links before the last
// component are followed. A file that somebody holds a lease on is waited for, a second at most.
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

// The same for a file that is read as well, so that it must be a regular one.
Fd open_for_update(const char* path, int flags);

// Opens a directory to remove what is in it, by the rule for writing.
Fd open_for_emptying(const char* path);

}  // namespace Tessaly::base

#endif
