// Writing a small text whole or not at all: a part of a number is another number.
#ifndef TSMAIL_MAILSIZE_WRITE_WHOLE_H
#define TSMAIL_MAILSIZE_WRITE_WHOLE_H

#include <sys/types.h>

#include <string_view>

#include "base/locked_stream.h"

namespace Tessaly::mailsize {

// Writes at the end of a file of this length, where the stream stands (or appends). If not all
// could be written, the file is cut back to its length, unless the length is unknown (negative),
// and the answer is false.
bool write_whole(const base::LockedStream& file, std::string_view text, off_t length);

}  // namespace Tessaly::mailsize

#endif
