// A worker: the process that does the tasks of one owner.
#ifndef TSMAIL_TOOLS_SPOOL_WORKER_H
#define TSMAIL_TOOLS_SPOOL_WORKER_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <optional>

#include "tools/spool/job.h"

namespace Tessaly::tool {

// What a worker process does: it gets its end of the socket, and the reason if it could not become
// the owner. It must not throw.
using Serve = std::function<void(int socket, const std::optional<Failure>& refused)>;

// Starts a process that keeps only the standard streams and the socket, has a worker's limits,
// becomes the owner for good, ends with its parent, and serves. A Failure if that is not possible.
pid_t start_process(const Owner& owner, int socket, const Serve& serve);

// The parent's view of a worker.
class Worker {
  public:
    using Clock = std::chrono::steady_clock;

    // Starts the process. A Failure if that is not possible.
    Worker(const Job& job, const Owner& owner);
    Worker(Worker&&) = default;
    Worker& operator=(Worker&&) = delete;
    // Ends the process; in the middle of a task it calls stop() first.
    ~Worker();

    // Hands the worker a task, and the descriptor that the task reads unless `input` is -1. False
    // if the worker has ended.
    bool give(std::size_t task, int input);

    const Owner& owner() const { return owner_; }
    int socket() const { return socket_.get(); }
    const std::deque<std::size_t>& tasks() const { return tasks_; }
    // The messages from the worker, which belong to the first task of tasks().
    Incoming incoming;

    // Notes that the first task is over.
    void finish_task();
    // Restarts the first task's time.
    void begin_anew() { began_ = Clock::now(); }
    // Notes that the first task can no longer fail.
    void pass() {
        passed_ = true;
        began_ = Clock::now();
    }
    bool passed() const { return passed_; }
    // When the first task began, or passed.
    Clock::time_point began() const { return began_; }

    void signal(int number) const;
    // Asks the worker to give up its task and hands its last messages to `take`, until that returns
    // false, the worker ends, or its time is over.
    void stop(const std::function<bool(Message)>& take);
    // Waits up to `time` for a message. False if none came.
    bool speaks_within(std::chrono::milliseconds time) const;
    // Ends the worker (killing it if `kill`) and returns its status as waitpid() gives it.
    int end(bool kill);

  private:
    Owner owner_;
    Fd socket_;
    pid_t process_;
    std::deque<std::size_t> tasks_;
    Clock::time_point began_;
    bool passed_ = false;
};

}  // namespace Tessaly::tool

#endif
