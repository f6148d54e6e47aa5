// Recognises a file that has a great length and nearly no contents.
#ifndef TSMAIL_TOOLS_WORK_HOLES_H
#define TSMAIL_TOOLS_WORK_HOLES_H

#include <sys/stat.h>

namespace Tessaly::tool {

// Anybody can make a file of a terabyte of holes at no cost. A copy of it would fill the disk, so
// such a file is not taken for a message. (Compressed mail has more contents than a thousandth.)
inline bool is_mostly_holes(const struct stat& st) {
    constexpr off_t kLong = off_t{64} << 20, kBlock = 512, kPart = 1000;
    return st.st_size > kLong && st.st_blocks * kBlock < st.st_size / kPart;
}

}  // namespace Tessaly::tool

#endif
