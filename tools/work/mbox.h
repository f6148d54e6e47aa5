// The mbox format: many messages in one file, each behind a line "From <sender> <date>".
#ifndef TSMAIL_TOOLS_WORK_MBOX_H
#define TSMAIL_TOOLS_WORK_MBOX_H

#include <sys/types.h>

#include <ctime>
#include <functional>
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

// What read_mbox() finds, in this order for each message.
struct MboxVisitor {
    std::function<void(std::optional<std::time_t> date)> begin;
    std::function<void(std::string_view piece)> text;
    // With the flags of Status and X-Status, as letters of a message's name. `old` says that a mail
    // reader has shown the message in a list.
    std::function<void(const std::string& flags, bool old)> end;
};

// Reads an mbox file. The lines "From ..." between the messages, the empty line in front of them,
// one
// '>' of a quoted ">From ", and the lines Status and X-Status with the letters of mail readers are
// left out of the text. False if the file does not begin like an mbox; an empty one is an mbox.
bool read_mbox(int fd, const MboxVisitor& visitor);

// The flags that a header line Status or X-Status stands for; nothing for any other line.
std::optional<std::string> flags_of_status(std::string_view line);

// Whether an mbox needs a '>' in front of the line.
bool needs_quote(std::string_view line);

// Whether the file is an mbox of two messages or more. False for what cannot be read twice, as a
// pipe.
bool holds_several_messages(int fd);

}  // namespace Tessaly::tool

#endif
