// How much lies below a path, for those who ask before something is removed.
#ifndef TSMAIL_TOOLS_WORK_AMOUNT_H
#define TSMAIL_TOOLS_WORK_AMOUNT_H

#include <cstdint>
#include <string>

namespace Tessaly::tool {

struct Amount {
    std::uint64_t messages = 0;
    std::uint64_t bytes = 0;   // of the messages, by their names, else by their files; at most
                               // INT64_MAX
    std::uint64_t others = 0;  // everything else but directories
    int error = 0;             // of the first thing that could not be looked at
};

// The path itself and all that is below it, at any depth. Symbolic links are counted, not followed.
// Messages are the files in directories cur and new whose names do not begin with '.'. Moves the
// working directory meanwhile.
Amount amount_below(const std::string& path);

// "3 messages (1.2 MiB) and 4 other files".
std::string amount_text(const Amount& amount);

}  // namespace Tessaly::tool

#endif
