// A message on its way from the network to the workers.
#ifndef TSMAIL_TOOLS_LMTP_MESSAGE_FILE_H
#define TSMAIL_TOOLS_LMTP_MESSAGE_FILE_H

#include <cstddef>
#include <string_view>
#include <vector>

#include "tools/cli/descriptors.h"

namespace Tessaly::tool::lmtp {

// A file without a name: in memory while it is small, else in the directory for temporary files. An
// error shows at the end.
class MessageFile {
  public:
    // announced: the message's size, if it is known.
    explicit MessageFile(std::uint64_t announced);

    void write(std::string_view bytes);
    // Writes what is held back. False if something could not be written.
    bool finish();
    int fd() const { return fd_.get(); }

  private:
    void flush();
    void put(std::string_view bytes);
    void move_to_disk();

    Fd fd_;
    bool in_memory_ = true;
    int error_ = 0;
    std::uint64_t written_ = 0;
    std::vector<char> held_;
};

}  // namespace Tessaly::tool::lmtp

#endif
