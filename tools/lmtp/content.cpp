#include "tools/lmtp/content.h"

#include <algorithm>
#include <cstring>

namespace Tessaly::tool::lmtp {

void Pieces::put(std::string_view text) {
    if (held_ + text.size() > text_.size()) finish();
    if (text.size() > text_.size()) return sink_(text);
    std::memcpy(text_.data() + held_, text.data(), text.size());
    held_ += text.size();
}

void Pieces::put_line(std::string_view text) {
    if (held_ + text.size() >= text_.size()) return put(text), put("\n");
    std::memcpy(text_.data() + held_, text.data(), text.size());
    held_ += text.size();
    text_[held_++] = '\n';
}

void Pieces::finish() {
    if (held_ != 0) sink_({text_.data(), held_});
    held_ = 0;
}

void Decoder::begin(bool dots) {
    state_ = State::line;
    dots_ = dots;
    size_ = 0;
}

std::size_t Decoder::take(std::string_view bytes, const Sink& sink) {
    Pieces out(sink);
    std::size_t taken = 0;
    while (taken < bytes.size() && !ended()) {
        taken += take_lines(bytes.substr(taken), out);
        if (taken == bytes.size()) break;
        const std::size_t line = take_line(bytes.substr(taken), out);
        taken += line;
        if (line == 0) take_byte(bytes[taken++], out);
    }
    out.finish();
    return taken;
}

void Decoder::finish(const Sink& sink) {
    Pieces out(sink);
    if (state_ == State::cr) put("\r", out);
    out.finish();
    state_ = State::ended;
}

// Takes whole lines in which nothing decides but their ends: nearly all of a message.
std::size_t Decoder::take_lines(std::string_view bytes, Pieces& out) {
    if (state_ != State::line) return 0;
    const char* from = bytes.data();
    const char* const end = from + bytes.size();
    while (from != end && !(dots_ && *from == '.')) {
        const auto left = static_cast<std::size_t>(end - from);
        const auto* cr = static_cast<const char*>(std::memchr(from, '\r', left));
        if (cr == nullptr || cr + 1 == end || cr[1] != '\n') break;
        out.put_line({from, static_cast<std::size_t>(cr - from)});
        from = cr + 2;
    }
    const auto taken = static_cast<std::size_t>(from - bytes.data());
    size_ += taken;
    return taken;
}

// Takes a line with its end, or what comes before a CR whose next byte decides. Returns 0 where a
// single byte decides.
std::size_t Decoder::take_line(std::string_view bytes, Pieces& out) {
    const bool dot_decides = dots_ && state_ == State::line && bytes.front() == '.';
    if ((state_ != State::text && state_ != State::line) || dot_decides) return 0;
    const std::size_t end = std::min(bytes.find('\r'), bytes.size());
    put(bytes.substr(0, end), out);
    if (end != 0) state_ = State::text;
    if (bytes.substr(end, 2) != "\r\n") return end;
    after_cr('\n', out);
    return end + 2;
}

void Decoder::take_byte(char byte, Pieces& out) {
    switch (state_) {
        case State::line:
        case State::text:
            state_ = byte == '\r' ? State::cr : State::dot;
            return;
        case State::dot:
            if (byte != '\r') put({&byte, 1}, out);
            state_ = byte == '\r' ? State::dot_cr : State::text;
            return;
        case State::dot_cr:
            if (byte == '\n') {
                state_ = State::ended;
                return;
            }
            return after_cr(byte, out);
        case State::cr:
            return after_cr(byte, out);
        case State::ended:
            return;
    }
}

void Decoder::after_cr(char byte, Pieces& out) {
    if (byte == '\n') {
        ++size_;  // for the CR
        put("\n", out);
        state_ = State::line;
    } else if (byte == '\r') {
        put("\r", out);
        state_ = State::cr;
    } else {
        const char both[] = {'\r', byte};
        put({both, sizeof both}, out);
        state_ = State::text;
    }
}

void Decoder::put(std::string_view bytes, Pieces& out) {
    size_ += bytes.size();
    out.put(bytes);
}

}  // namespace Tessaly::tool::lmtp
