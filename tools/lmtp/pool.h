// The workers, as the network process sees them.
#ifndef TSMAIL_TOOLS_LMTP_POOL_H
#define TSMAIL_TOOLS_LMTP_POOL_H

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "tools/lmtp/log.h"
#include "tools/lmtp/message_file.h"
#include "tools/lmtp/outcome.h"
#include "tools/lmtp/parent.h"
#include "tools/work/report.h"

namespace Tessaly::tool::lmtp {

struct Task {
    using Done = std::function<void(const Outcome&)>;

    std::string what;     // as a worker takes it
    std::string address;  // of the recipient
    std::string ident = {};
    std::shared_ptr<MessageFile> message = {};
    Done done = {};
    int lost = 0;  // workers that ended while they had it, or what it is for
};

// Starts workers when they are needed, keeps them for the next tasks of the same owner, and ends
// those that take too long. A mailbox on which a task takes long gets no second one meanwhile, and
// a worker that is slow does not count as one of the workers: so an owner who holds a lock costs
// nobody else's time.
class Pool {
  public:
    Pool(boost::asio::io_context& context, int questions, std::size_t workers,
         std::chrono::seconds limit, const Log& log);

    // Whether there is a mailbox for the address: a reply of 250, or one that refuses it.
    void find(const std::string& address, const Task::Done& done);
    // Calls done(), later, with what came of the task.
    void submit(Task task);
    // Fails the tasks that no worker has begun, and all that come from now on.
    void stop();
    // Asks the workers to give up what they do.
    void give_up();

  private:
    using Clock = std::chrono::steady_clock;
    using Stream = boost::asio::posix::stream_descriptor;
    using Key = std::pair<uid_t, gid_t>;

    struct Waiting {
        Task task;
        std::string mailbox;
        Clock::time_point since;
    };
    struct Worker {
        Worker(Stream opened, pid_t number, Key owner)
            : stream(std::move(opened)), process(number), key(owner) {}
        Stream stream;
        pid_t process;
        Key key;
        Incoming incoming = {};
        bool busy = false;
        Waiting current = {};  // while it is busy
        Clock::time_point began = {}, signalled = {};
        bool sent = false;    // the current task could be sent
        bool proven = false;  // it has done a task
        bool slow = false, passed = false, answered = false;
        int signal = 0;  // the last one that it got
        std::optional<Failure> failure = {};
        std::shared_ptr<char> alive = std::make_shared<char>();
    };
    using Workers = std::list<Worker>;
    struct Queue {
        std::deque<Waiting> waiting = {};
        std::size_t workers = 0, starting = 0;
    };
    // ---- tasks
    void enqueue(Task task, const Owner& owner);
    void dispatch(const Key& key);
    bool give_to_idle(const Key& key, Queue& queue);
    std::deque<Waiting>::iterator next_of(Queue& queue);
    void give(Worker& worker, Waiting waiting);
    bool need_worker(const Key& key, Queue& queue);
    bool retire_idle();
    void add_worker(const Key& key, const std::string& mailbox, const Answer& answer, Fd socket);
    void fail_mailbox(Queue& queue, const std::string& mailbox, const Failure& failure);
    void serve_others();
    bool others_starve(const Key& key) const;
    bool is_superfluous(const Worker& worker) const;
    void finish(Task& task, const Outcome& outcome);
    void fail_waiting(Queue& queue, const Failure& failure);

    // ---- workers' messages
    void listen_to(Workers::iterator worker);
    void hear(Workers::iterator worker);
    void take(Worker& worker, const Message& message);
    void answer(Worker& worker, const Outcome& outcome);
    void end_task(Worker& worker);
    void lose(Workers::iterator worker);
    bool take_back(Worker& worker);
    void fail_task(Worker& worker);
    void signal(Worker& worker, int number);
    void tick();
    void look_at(Worker& worker, Clock::time_point now);
    void forget_slow(Worker& worker);

    boost::asio::io_context& context_;
    Parent parent_;
    boost::asio::steady_timer timer_;
    const std::size_t most_;
    const std::chrono::seconds limit_;
    const Log& log_;

    Workers workers_;
    std::size_t slow_workers_ = 0, starting_ = 0;
    std::map<Key, Queue> queues_;
    std::multiset<std::string> slow_;  // mailboxes
    bool stopped_ = false;
};

}  // namespace Tessaly::tool::lmtp

#endif
