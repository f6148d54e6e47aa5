// Whole reads and writes on descriptors: interruptions are retried, short counts go on.
#ifndef TSMAIL_BASE_IO_H
#define TSMAIL_BASE_IO_H

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace Tessaly::base {

// Writes all of the text. False with errno if not; a beginning may have been written.
bool write_all(int fd, std::string_view text);
// The same at an offset, for descriptors that are not in append mode.
bool pwrite_all(int fd, std::string_view text, off_t offset);

// Makes the text the whole content of a file that has just been emptied. Takes no lock: if several
// processes do so at the same time, the last one's text stays. False with errno if the text could
// not be written whole; the file is empty then. Meanwhile a reader may find one text over another,
// or, if the descriptors are in append mode, one behind another.
bool replace_content(int fd, std::string_view text);

// Reads up to `room` bytes from the offset on, until the room is full or the file ends. The count,
// or -1 with errno. The descriptor's own offset does not move.
ssize_t pread_full(int fd, char* buffer, std::size_t room, off_t offset);

// The most that is read of one of the store's files. The library's own are far shorter. A longer
// one (which may have holes of any size, and grow while it is read) counts as one that cannot be
// read.
inline constexpr off_t kLongestFile = off_t{64} << 20;

// Appends the whole file, from its beginning, to `text`. False with errno on a read error, EFBIG
// for a file of more than kLongestFile bytes. Throws std::bad_alloc.
bool read_file(int fd, std::string& text);

}  // namespace Tessaly::base

#endif
