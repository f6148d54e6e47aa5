// A worker: the process that does the tasks of one owner.
#ifndef TSMAIL_TOOLS_SPOOL_WORKER_H
#define TSMAIL_TOOLS_SPOOL_WORKER_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>

#include "tools/spool/job.h"

namespace Tessaly::tool {

// The parent's view of a worker.
class Worker {
  public:
    using Clock = std::chrono::steady_clock;

    // Starts the process. A Failure if there is none to be had.
    Worker(const Job& job, const Owner& owner);
    Worker(Worker&&) = default;
    Worker& operator=(Worker&&) = delete;
    // Ends it; in the middle of a task as stop() does.
    ~Worker();

    // Hands it a task, with the descriptor that the task reads if it is not -1. False if the worker
    // is gone.
    bool give(std::size_t task, int input);

    const Owner& owner() const { return owner_; }
    int socket() const { return socket_.get(); }
    const std::deque<std::size_t>& tasks() const { return tasks_; }
    // What it sends; the task is the first one of tasks().
    Incoming incoming;

    // The first task is over.
    void finish_task();
    // The first task's time begins anew.
    void begin_anew() { began_ = Clock::now(); }
    // The first task cannot fail any more.
    void pass() {
        passed_ = true;
        began_ = Clock::now();
    }
    bool passed() const { return passed_; }
    // When the first task began, or passed.
    Clock::time_point began() const { return began_; }

    void signal(int number) const;
    // Asks it to give its task up, and hands what it still says to `take`, until that returns false
    // or the worker ends or has had its time.
    void stop(const std::function<bool(Message)>& take);
    // Waits up to some milliseconds until it says something. False if it did not.
    bool speaks_within(std::chrono::milliseconds time) const;
    // Ends it, or waits for its end. Returns its status as waitpid has it.
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
