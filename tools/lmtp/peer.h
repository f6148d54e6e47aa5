// A connection to a peer: what all protocols need.
#ifndef TSMAIL_TOOLS_LMTP_PEER_H
#define TSMAIL_TOOLS_LMTP_PEER_H

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "tools/cli/descriptors.h"

namespace Tessaly::tool::lmtp {

// Reads into a buffer, which is larger while a peer sends fast, and only when the protocol has
// taken what came before and the peer has taken the replies: a peer that sends fast or reads slowly
// fills its own socket.
class Peer : public std::enable_shared_from_this<Peer> {
  public:
    using Clock = std::chrono::steady_clock;

    // out: where replies go; -1: to the same descriptor.
    Peer(boost::asio::io_context& context, Fd in, Fd out);
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    virtual ~Peer() = default;

    // Begins; calls `closed` when it is over.
    void start(std::function<void()> closed);
    // The time since when the peer has been silent; the future while it waits for this side.
    Clock::time_point silent_since() const { return waiting_ ? since_ : Clock::time_point::max(); }
    // Says why and closes the connection, as soon as what is under way is answered.
    virtual void end(const std::string& why) = 0;
    // Closes the connection at once.
    void hang_up() { close(); }
    // Ends the connection; the next time, if the peer does not take its last reply, without a word.
    void give_up(const std::string& why) {
        if (std::exchange(given_up_, true)) return close();
        end(why);
    }

  protected:
    // Called at the beginning, when bytes came and when replies were sent. Does one of the things
    // below, or waits for something of its own.
    virtual void go_on() = 0;

    std::string_view received() const { return {buffer_.get() + begin_, end_ - begin_}; }
    void take(std::size_t bytes) { begin_ += bytes; }
    void receive();
    void send(std::string text);
    void close();
    // Whether a receive() is under way; it is given up, and go_on() is called.
    bool interrupt();
    boost::asio::io_context& context() { return context_; }

  private:
    using Stream = boost::asio::posix::stream_descriptor;
    Stream& out() { return out_.is_open() ? out_ : in_; }
    void begin_waiting();

    boost::asio::io_context& context_;
    Stream in_, out_;
    void choose_buffer();

    std::unique_ptr<char[]> buffer_;
    std::size_t buffer_size_ = 0;
    std::size_t begin_ = 0, end_ = 0;
    std::string sent_;
    bool waiting_ = false, receiving_ = false, interrupted_ = false, closed_ = false,
         given_up_ = false;
    Clock::time_point since_ = Clock::now();
    std::function<void()> on_close_;
};

}  // namespace Tessaly::tool::lmtp

#endif
