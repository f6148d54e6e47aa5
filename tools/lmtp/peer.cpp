#include "tools/lmtp/peer.h"

#include <sys/socket.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <utility>

namespace Tessaly::tool::lmtp {

using boost::system::error_code;

namespace {

constexpr std::size_t kBuffer = 16384, kLargeBuffer = 32768;

}  // namespace

Peer::Peer(boost::asio::io_context& context, Fd in, Fd out)
    : context_(context), in_(context, in.get()), out_(context) {
    in.release();
    if (!out) return;
    out_.assign(out.get());
    out.release();
}

void Peer::start(std::function<void()> closed) {
    on_close_ = std::move(closed);
    go_on();
}

void Peer::begin_waiting() {
    waiting_ = true;
    since_ = Clock::now();
}

void Peer::receive() {
    begin_waiting();
    receiving_ = true;
    choose_buffer();
    in_.async_read_some(boost::asio::buffer(buffer_.get(), buffer_size_),
                        [this, self = shared_from_this()](const error_code& error, std::size_t n) {
                            waiting_ = receiving_ = false;
                            if (closed_) return;
                            if (error && !std::exchange(interrupted_, false)) return close();
                            begin_ = 0;
                            end_ = error ? 0 : n;
                            go_on();
                        });
}

// A large one for a peer that filled the last one.
void Peer::choose_buffer() {
    const std::size_t wanted = end_ >= kBuffer ? kLargeBuffer : kBuffer;
    if (std::exchange(buffer_size_, wanted) == wanted) return;
    buffer_ = std::make_unique_for_overwrite<char[]>(wanted);
}

void Peer::send(std::string text) {
    begin_waiting();
    sent_ = std::move(text);
    boost::asio::async_write(
        out(), boost::asio::buffer(sent_),
        [this, self = shared_from_this()](const error_code& error, std::size_t) {
            waiting_ = false;
            if (closed_) return;
            if (error) return close();
            go_on();
        });
}

bool Peer::interrupt() {
    if (!receiving_) return false;
    interrupted_ = true;
    in_.cancel();
    return true;
}

// Ends both directions; what was sent before still arrives.
void Peer::close() {
    if (std::exchange(closed_, true)) return;
    ::shutdown(in_.native_handle(), SHUT_WR);
    error_code ignored;
    in_.close(ignored);
    out_.close(ignored);
    if (on_close_) boost::asio::post(context_, std::exchange(on_close_, nullptr));
}

}  // namespace Tessaly::tool::lmtp
