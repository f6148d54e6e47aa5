// The text of a message as it comes over a connection, and as it is stored.
#ifndef TSMAIL_TOOLS_LMTP_CONTENT_H
#define TSMAIL_TOOLS_LMTP_CONTENT_H

#include <array>
#include <cstdint>
#include <functional>
#include <string_view>

namespace Tessaly::tool::lmtp {

using Sink = std::function<void(std::string_view)>;

// Hands text to a sink in long pieces: to call it for each line would take longer than the lines.
class Pieces {
  public:
    explicit Pieces(const Sink& sink) : sink_(sink) {}
    Pieces(const Pieces&) = delete;
    Pieces& operator=(const Pieces&) = delete;

    void put(std::string_view text);
    void put_line(std::string_view text);  // and its end, LF
    // Hands out what is held back.
    void finish();

  private:
    const Sink& sink_;
    std::size_t held_ = 0;
    std::array<char, 65536> text_;
};

// Decodes a message: CR LF becomes LF; every other CR, LF and NUL stays. Only CR LF ends a line, so
// only a dot between two CR LF ends the message, and only a dot after CR LF is dropped. Needs no
// memory for a line of any length.
class Decoder {
  public:
    // Begins a message. With `dots` the message ends with a line of one dot (DATA); otherwise it
    // ends where the sender's counted chunks end (BDAT).
    void begin(bool dots);
    // Takes bytes up to the end of the message, hands what is to be stored to the sink, and returns
    // how many bytes it took.
    std::size_t take(std::string_view bytes, const Sink& sink);
    // The last chunk is over: hands out what was held back.
    void finish(const Sink& sink);

    // Whether the line with the dot came.
    bool ended() const { return state_ == State::ended; }
    // The bytes that came so far, without the dots that only protect lines.
    std::uint64_t size() const { return size_; }

  private:
    // What came last: the beginning of a line, a dot there, a dot and a CR there, a CR, other text.
    enum class State { line, dot, dot_cr, cr, text, ended };

    std::size_t take_lines(std::string_view bytes, Pieces& out);
    std::size_t take_line(std::string_view bytes, Pieces& out);
    void take_byte(char byte, Pieces& out);
    void after_cr(char byte, Pieces& out);
    void put(std::string_view bytes, Pieces& out);

    State state_ = State::line;
    bool dots_ = true;
    std::uint64_t size_ = 0;
};

}  // namespace Tessaly::tool::lmtp

#endif
