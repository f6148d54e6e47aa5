// The first process of the service, which has its rights, as the network process sees it.
#ifndef TSMAIL_TOOLS_LMTP_PARENT_H
#define TSMAIL_TOOLS_LMTP_PARENT_H

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>

#include "tools/spool/service.h"

namespace Tessaly::tool::lmtp {

// The path of the home of the address's mailbox. A Failure for what is not an address.
std::string home_of(const std::string& address);

// Asks the parent for owners and workers. The answers come later, in the order of the questions.
// When the parent is gone there are no workers any more: the context is stopped.
class Parent {
  public:
    using Answered = std::function<void(const Answer&)>;
    using Started = std::function<void(const Answer&, Fd socket)>;

    Parent(boost::asio::io_context& context, int socket);

    // Finds the owner of the address's mailbox, or why there is none. It is remembered for some
    // seconds; then `answered` is called at once. A worker of an owner who no longer is the owner
    // finds no mailbox that it may write to, which is a temporary failure. A Failure for what is
    // not an address.
    void find_owner(const std::string& address, const Answered& answered);
    void forget_owner(const std::string& home) { owners_.erase(home); }
    void forget_owners() { owners_.clear(); }
    // Starts a worker for the owner of the address's mailbox.
    void start_worker(const std::string& address, Started started);
    // Sends a worker a signal, if it still runs.
    void signal(pid_t worker, int number);

  private:
    using Clock = std::chrono::steady_clock;
    struct Known {
        Owner owner;
        Clock::time_point until;
    };

    void ask(Ask what, const std::string& address, Started answered);
    void send_questions();
    void listen();
    void take_answer();

    boost::asio::io_context& context_;
    boost::asio::posix::stream_descriptor socket_;
    std::uint32_t serial_ = 0;
    std::deque<Question> unasked_;
    std::map<std::uint32_t, Started> asked_;
    std::map<std::string, Known> owners_;  // by home
};

}  // namespace Tessaly::tool::lmtp

#endif
