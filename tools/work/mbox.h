// The mbox format: many messages in one file, each behind a line "From <sender> <date>".
#ifndef TSMAIL_TOOLS_WORK_MBOX_H
#define TSMAIL_TOOLS_WORK_MBOX_H

#include <sys/types.h>

#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Tessaly::tool {

// The date of a line that begins a message, as "From ann@site.test Thu Jan  1 00:00:00 1970\n".
// Nothing for any other line. The time is UTC unless the line has a numeric zone.
std::optional<std::time_t> date_of_from_line(std::string_view line);

// Reads a file line by line, from an offset on, without moving the descriptor's own offset. A line
// that is longer than the buffer comes in several pieces.
class FileLines {
  public:
    explicit FileLines(int fd);

    // Goes to the next line or piece of a line; false at the end. A Failure for a read error.
    bool next();
    // It, with its line end.
    std::string_view text() const { return text_; }
    // Whether it begins a line.
    bool begins() const { return begins_; }
    // How many bytes were handed out.
    off_t bytes() const { return bytes_; }

  private:
    void fill();

    int fd_;
    std::unique_ptr<char[]> buffer_;
    std::size_t position_ = 0, filled_ = 0;
    off_t offset_ = 0, bytes_ = 0;
    bool begins_ = false, ended_ = false;
    std::string_view text_;
};

// Whether the file is an mbox of two messages or more. False for what cannot be read twice, as a
// pipe.
bool holds_several_messages(int fd);

}  // namespace Tessaly::tool

#endif
