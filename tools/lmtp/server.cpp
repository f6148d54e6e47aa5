#include "tools/lmtp/server.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace Tessaly::tool::lmtp {

using boost::system::error_code;
using std::chrono::seconds;

namespace {

constexpr seconds kTick{1};
// After a signal: until workers are asked to give up, and until everything ends.
constexpr seconds kForDeliveries{5}, kForAnswers{3};

}  // namespace

Server::Server(const Limits& limits, int questions, MakePeer make)
    : limits_(limits),
      make_(std::move(make)),
      context_(1),
      signals_(context_, ::fcntl(hold_.fd(), F_DUPFD_CLOEXEC, 0)),
      timer_(context_),
      last_(context_),
      pool_(context_, questions, limits.workers, limits.delivery, log_) {
    wait_for_signal();
    tick();
}

// ---- connections

void Server::listen(const std::vector<Fd>& sockets) {
    for (const Fd& socket : sockets) {
        const int own = ::fcntl(socket.get(), F_DUPFD_CLOEXEC, 0);
        ::fcntl(own, F_SETFL, ::fcntl(own, F_GETFL) | O_NONBLOCK);
        wait_for_peers(listeners_.emplace_back(context_, own));
    }
}

// At the limit, peers wait until a connection has ended.
void Server::wait_for_peers(Stream& listener) {
    if (stopping_) return;
    if (peers_.size() >= limits_.connections) {
        paused_.push_back(&listener);
        return;
    }
    listener.async_wait(Stream::wait_read, [this, &listener](const error_code& error) {
        if (!error) accept_from(listener);
    });
}

void Server::accept_from(Stream& listener) {
    Fd peer(::accept4(listener.native_handle(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    const bool exhausted = !peer && (errno == EMFILE || errno == ENFILE || errno == ENOMEM);
    if (peer) add(std::move(peer), Fd());
    if (exhausted) return paused_.push_back(&listener);  // tried again at the next tick
    wait_for_peers(listener);
}

void Server::resume() {
    for (Stream* listener : std::exchange(paused_, {})) wait_for_peers(*listener);
}

void Server::serve_one(Fd in, Fd out) {
    one_ = true;
    add(std::move(in), std::move(out));
}

void Server::add(Fd in, Fd out) {
    const auto peer =
        peers_.insert(peers_.end(), make_(context_, std::move(in), std::move(out), pool_, log_));
    (*peer)->start([this, peer] { remove(peer); });
}

void Server::remove(std::list<std::shared_ptr<Peer>>::iterator peer) {
    peers_.erase(peer);
    resume();
    if (peers_.empty() && (one_ || stopping_)) context_.stop();
}

void Server::tick() {
    timer_.expires_after(kTick);
    timer_.async_wait([this](const error_code& error) {
        if (error) return;
        const auto last = Peer::Clock::now() - limits_.idle;
        for (const auto& peer : std::vector(peers_.begin(), peers_.end())) {
            if (peer->silent_since() < last) peer->give_up("Silent for too long");
        }
        resume();
        tick();
    });
}

// ---- the end

void Server::wait_for_signal() {
    signals_.async_wait(Stream::wait_read, [this](const error_code& error) {
        if (!error) stop();
    });
}

void Server::stop() {
    stopping_ = true;
    listeners_.clear();
    paused_.clear();
    pool_.stop();
    for (const auto& peer : std::vector(peers_.begin(), peers_.end())) {
        peer->end("The service ends");
    }
    if (peers_.empty()) return context_.stop();
    last_.expires_after(kForDeliveries);
    last_.async_wait([this](const error_code&) {
        pool_.give_up();
        last_.expires_after(kForAnswers);
        last_.async_wait([this](const error_code&) { context_.stop(); });
    });
}

}  // namespace Tessaly::tool::lmtp
