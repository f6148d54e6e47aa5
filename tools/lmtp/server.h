// The network process of a service.
#ifndef TSMAIL_TOOLS_LMTP_SERVER_H
#define TSMAIL_TOOLS_LMTP_SERVER_H

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <vector>

#include "tools/lmtp/log.h"
#include "tools/lmtp/peer.h"
#include "tools/lmtp/pool.h"
#include "tools/work/signals.h"

namespace Tessaly::tool::lmtp {

struct Limits {
    std::size_t connections = 100;
    std::chrono::seconds idle{300};
    std::size_t workers = 16;
    std::chrono::seconds delivery{300};
};

// Accepts connections and serves them in one thread, until it gets a signal that ends it. Then it
// takes no more mail, finishes what is under way, and ends within eight seconds.
class Server {
  public:
    using MakePeer = std::function<std::shared_ptr<Peer>(boost::asio::io_context&, Fd in, Fd out,
                                                         Pool&, const Log&)>;

    Server(const Limits& limits, int questions, MakePeer make);

    void listen(const std::vector<Fd>& sockets);
    // Serves one connection, after which the server ends.
    void serve_one(Fd in, Fd out);
    void run() { context_.run(); }

  private:
    using Stream = boost::asio::posix::stream_descriptor;
    void wait_for_peers(Stream& listener);
    void accept_from(Stream& listener);
    void resume();
    void add(Fd in, Fd out);
    void remove(std::list<std::shared_ptr<Peer>>::iterator peer);
    void wait_for_signal();
    void stop();
    void tick();

    const Limits limits_;
    const MakePeer make_;
    boost::asio::io_context context_;
    const SignalHold hold_;
    Stream signals_;
    boost::asio::steady_timer timer_, last_;
    Log log_;
    Pool pool_;
    std::list<Stream> listeners_;
    std::vector<Stream*> paused_;
    std::list<std::shared_ptr<Peer>> peers_;
    bool one_ = false, stopping_ = false;
};

}  // namespace Tessaly::tool::lmtp

#endif
