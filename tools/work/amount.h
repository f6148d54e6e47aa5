// How much is below a path, to show it before something is removed.
#ifndef TSMAIL_TOOLS_WORK_AMOUNT_H
#define TSMAIL_TOOLS_WORK_AMOUNT_H

#include <cstdint>
#include <string>

namespace Tessaly::tool {

struct Amount {
    std::uint64_t messages = 0;
    std::uint64_t bytes = 0;   // of the messages: the size in the name, else of the file; at most
                               // INT64_MAX
    std::uint64_t others = 0;  // all other entries except directories
    int error = 0;             // errno of the first entry that could not be read
};

// Counts the path itself and all that is below it, at any depth. Symbolic links are counted, not
// followed. Messages are the files in directories cur and new whose names do not begin with '.'.
// Changes the working directory meanwhile.
Amount amount_below(const std::string& path);

// "3 messages (1.2 MiB) and 4 other files".
std::string amount_text(const Amount& amount);

}  // namespace Tessaly::tool

#endif
