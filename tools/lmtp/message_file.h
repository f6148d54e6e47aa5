// A message on its way from the network to the workers.
#ifndef TSMAIL_TOOLS_LMTP_MESSAGE_FILE_H
#define TSMAIL_TOOLS_LMTP_MESSAGE_FILE_H

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "tools/cli/descriptors.h"

namespace Tessaly::tool::lmtp {

// The memory that all messages on their way take together. Its last part is for small messages, so
// that large ones do not send these to the disk.
class Memory {
  public:
    // Whether a message of this size may take so many bytes more.
    bool has_room(std::uint64_t size, std::uint64_t more) const;
    void take(std::uint64_t bytes) { taken_ += bytes; }
    void give_back(std::uint64_t bytes) { taken_ -= bytes; }

  private:
    std::uint64_t taken_ = 0;
};

// A file without a name: in memory while there is room, else in the directory for temporary files.
// An error shows at the end.
class MessageFile {
  public:
    // announced: the message's size, if it is known.
    MessageFile(std::uint64_t announced, Memory& memory);
    MessageFile(const MessageFile&) = delete;
    MessageFile& operator=(const MessageFile&) = delete;
    ~MessageFile() { memory_.give_back(reserved_); }

    void write(std::string_view bytes);
    // Writes what is held back. False if something could not be written.
    bool finish();
    int fd() const { return fd_.get(); }

  private:
    void flush();
    void put(std::string_view bytes);
    bool fits(std::uint64_t size);
    void move_to_disk();

    Memory& memory_;
    std::uint64_t reserved_ = 0;  // bytes of the memory
    Fd fd_;
    bool in_memory_;
    int error_ = 0;
    std::uint64_t written_ = 0;
    std::vector<char> held_;
};

}  // namespace Tessaly::tool::lmtp

#endif
