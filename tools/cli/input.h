// Input - a file to read, or standard input.
#ifndef TSMAIL_TOOLS_CLI_INPUT_H
#define TSMAIL_TOOLS_CLI_INPUT_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "tools/cli/descriptors.h"

namespace Tessaly::tool {

// An open input and its name in messages.
struct Input {
    Fd owned;
    int fd;
    std::string name;
    // Where reading goes on in a file that other processes read through the same descriptor; null:
    // at the descriptor's own position.
    off_t* position = nullptr;
};

// Opens a file to read, with the caller's rights; "" is standard input. A Failure with code
// kExitNoInput if the file cannot be opened.
Input open_input(const std::string& file);

// Reads up to `room` bytes; 0 at the end. A Failure has code kExitNoInput if the input cannot be
// read at all, else kExitIo. On EAGAIN it returns -1: the caller waits.
ssize_t read_some(const Input& input, char* buffer, std::size_t room);

// The size of the input if it is a file, else 0.
std::uint64_t size_of(const Input& input);

// The lines of an input, one after the other, without their ends ("\n" or "\r\n").
class LineReader {
  public:
    // Calls `waits` when input has come, and several times a second while none comes.
    explicit LineReader(const Input& input, std::function<void()> waits = {})
        : input_(input), waits_(std::move(waits)) {}

    // Goes to the next line; false at the end. Failures are those of read_some.
    bool next();
    const std::string& line() const { return line_; }
    // Whether the line was cut because it is too long.
    bool cut() const { return cut_; }
    std::uint64_t number() const { return number_; }
    // How many bytes of the input were read for the lines so far.
    std::uint64_t bytes() const { return bytes_; }

  private:
    bool fill();
    void take(std::size_t length);

    const Input& input_;
    std::function<void()> waits_;
    std::string line_;
    bool cut_ = false;
    std::uint64_t number_ = 0, bytes_ = 0;
    std::size_t position_ = 0, filled_ = 0;
    char piece_[65536];
};

// All of standard input, at most a mebibyte.
std::string read_standard_input();

}  // namespace Tessaly::tool

#endif
