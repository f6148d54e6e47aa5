// How large a message is for the records.
#ifndef TSMAIL_TOOLS_WORK_MESSAGE_SIZE_H
#define TSMAIL_TOOLS_WORK_MESSAGE_SIZE_H

#include <sys/stat.h>

#include <cstdint>

namespace Tessaly::tool {

// The size in the name, as get_maildir_msg_len_from_name gives it, or else the size of the file.
inline std::uint64_t counted_size(long long named, const struct stat& file) {
    return static_cast<std::uint64_t>(named >= 0 ? named : file.st_size);
}

}  // namespace Tessaly::tool

#endif
