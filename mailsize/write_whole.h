// Writing a small text whole or not at all: a part of a number is another number.
#ifndef TSMAIL_MAILSIZE_WRITE_WHOLE_H
#define TSMAIL_MAILSIZE_WRITE_WHOLE_H

#include <sys/types.h>

#include <string_view>

namespace Tessaly::mailsize {

// Writes at the end of a file of this length, where the descriptor stands (or appends). False if
// not all could be written; the file is cut back to its length then (if that is known: not
// negative).
bool write_whole(int fd, std::string_view text, off_t length);

}  // namespace Tessaly::mailsize

#endif
