#include "tools/lmtp/content.h"

#include <algorithm>

namespace Tessaly::tool::lmtp {

void Decoder::begin(bool dots) {
    state_ = State::line;
    dots_ = dots;
    size_ = 0;
}

std::size_t Decoder::take(std::string_view bytes, const Sink& sink) {
    std::size_t taken = 0;
    while (taken < bytes.size() && !ended()) {
        const std::size_t text = take_text(bytes.substr(taken), sink);
        taken += text;
        if (text == 0) take_byte(bytes[taken++], sink);
    }
    return taken;
}

void Decoder::finish(const Sink& sink) {
    if (state_ == State::cr) put("\r", sink);
    state_ = State::ended;
}

// Takes everything before the next CR in one piece. Returns 0 where a single byte decides.
std::size_t Decoder::take_text(std::string_view bytes, const Sink& sink) {
    const bool dot_decides = dots_ && state_ == State::line && bytes.front() == '.';
    if ((state_ != State::text && state_ != State::line) || dot_decides) return 0;
    const std::string_view text = bytes.substr(0, bytes.find('\r'));
    if (text.empty()) return 0;
    put(text, sink);
    state_ = State::text;
    return text.size();
}

void Decoder::take_byte(char byte, const Sink& sink) {
    switch (state_) {
        case State::line:
        case State::text:
            state_ = byte == '\r' ? State::cr : State::dot;
            return;
        case State::dot:
            if (byte != '\r') put({&byte, 1}, sink);
            state_ = byte == '\r' ? State::dot_cr : State::text;
            return;
        case State::dot_cr:
            if (byte == '\n') {
                state_ = State::ended;
                return;
            }
            return after_cr(byte, sink);
        case State::cr:
            return after_cr(byte, sink);
        case State::ended:
            return;
    }
}

void Decoder::after_cr(char byte, const Sink& sink) {
    if (byte == '\n') {
        ++size_;  // for the CR
        put("\n", sink);
        state_ = State::line;
    } else if (byte == '\r') {
        put("\r", sink);
        state_ = State::cr;
    } else {
        const char both[] = {'\r', byte};
        put({both, sizeof both}, sink);
        state_ = State::text;
    }
}

void Decoder::put(std::string_view bytes, const Sink& sink) {
    size_ += bytes.size();
    sink(bytes);
}

}  // namespace Tessaly::tool::lmtp
