#include "tools/spool/job.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <deque>
#include <list>
#include <map>
#include <optional>
#include <utility>

#include "tools/cli/progress.h"
#include "tools/cli/text.h"
#include "tools/spool/worker.h"

namespace Tessaly::tool {

namespace {

using std::string;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = Worker::Clock;

// kQueue: how many tasks a worker may have queued, so that it need not wait for its parent. kAhead:
// how far the newest task may be ahead of the task whose results are shown next.
constexpr std::size_t kQueue = 16, kAhead = 1024;
// The time limit after a task has passed: the rest of its work takes only milliseconds.
constexpr seconds kGrace{10};
// The time limit for marking a mailbox for a recount after its worker was ended.
constexpr seconds kAfterKill{10};

string end_text(int status) {
    if (WIFSIGNALED(status))
        return fmt::format("its worker was ended by signal {}", WTERMSIG(status));
    return fmt::format("its worker ended with exit code {}", WEXITSTATUS(status));
}

// ---- what is shown

// Shows the messages of the tasks in the order of the tasks.
class Results {
  public:
    Results(Session& session, const Job& job)
        : session_(session), job_(job), progress_(session, job.progress, 0) {}

    void put(std::size_t task, Message message) {
        waiting_[task].push_back(std::move(message));
        while (!waiting_.empty() && waiting_.begin()->first == shown_) show_first();
    }
    void fail(std::size_t task, const Failure& failure) {
        put(task, {Event::error,
                   {{"text", failure.what()},
                    {"code", int{failure.code()}},
                    {"status", failure.status()}}});
        put(task, {Event::end, {{"code", int{failure.code()}}}});
    }
    // How many tasks have ended and been shown.
    std::size_t shown() const { return shown_; }
    const JobResult& result() const { return result_; }

  private:
    void show_first() {
        std::deque<Message> messages = std::move(waiting_.begin()->second);
        waiting_.erase(waiting_.begin());
        const std::size_t task = shown_;
        for (const Message& message : messages) show(task, message);
    }

    void show(std::size_t task, const Message& message) {
        const Json& body = message.body;
        switch (message.event) {
            case Event::object:
                return job_.show(task, body);
            case Event::warning:
                return session_.warn(text_of(body));
            case Event::detail:
                return session_.detail(text_of(body));
            case Event::error:
                return show_error(task, body);
            case Event::progress:
                if (wants_steps())
                    progress_.advance(body.value("done", 0U), body.value("total", 0U));
                return;
            case Event::fed:
            case Event::passed:
                return;
            case Event::end:
                return finish(body.value("code", int{kExitSoftware}));
        }
    }

    void show_error(std::size_t task, const Json& body) {
        const string text = job_.failed ? job_.failed(task, text_of(body)) : text_of(body);
        session_.error(text, body.value("status", string()));
        if (job_.show_failure) {
            job_.show_failure(task, text, body.value("code", int{kExitSoftware}));
        }
    }

    static string text_of(const Json& body) { return body.value("text", string()); }

    bool wants_steps() const { return job_.count == 1 && !job_.progress.empty(); }

    void finish(int code) {
        ++shown_;
        result_.code = std::max(result_.code, code);
        result_.left_out += code != kExitOk && code != kExitNo ? 1 : 0;
        if (!job_.progress.empty() && job_.count > 1) progress_.advance(shown_, job_.count);
    }

    Session& session_;
    const Job& job_;
    Progress progress_;
    std::map<std::size_t, std::deque<Message>> waiting_;
    std::size_t shown_ = 0;
    JobResult result_;
};

// ---- who does it

class Run {
  public:
    Run(Session& session, const Job& job)
        : session_(session), job_(job), limit_(session.timeout), results_(session, job) {}

    JobResult run() {
        for (;;) {
            hand_out();
            if (workers_.empty()) break;
            wait_for_workers();
        }
        for (; next_ < job_.count; ++next_) results_.fail(next_, by_signal());
        return results_.result();
    }

  private:
    static Failure by_signal() { return {kExitTryAgain, "ended by a signal"}; }

    // Hands out tasks as long as a worker can take them, then ends the workers that have no task.
    void hand_out() {
        while (!stopped_ && (!again_.empty() || may_begin_next())) {
            const std::size_t task = again_.empty() ? next_ : again_.front();
            if (!hand_out(task)) return;
            if (again_.empty()) {
                ++next_;
            } else {
                again_.pop_front();
            }
            owner_.reset();
        }
        workers_.remove_if([](const Worker& worker) { return worker.tasks().empty(); });
    }

    bool may_begin_next() const { return next_ < job_.count && next_ < results_.shown() + kAhead; }

    // False if no worker can take a task now. A task that cannot be handed out has failed.
    bool hand_out(std::size_t task) {
        try {
            if (!owner_) owner_ = job_.owner(task);
            if (!owner_) {
                results_.put(task, {Event::end, {{"code", int{kExitOk}}}});
                return true;
            }
            Worker* worker = free_worker(*owner_);
            if (worker == nullptr) return false;
            const Fd input = job_.input ? job_.input(task) : Fd();
            if (worker->give(task, input.get())) return true;
            throw Failure(kExitTryAgain, "its worker is gone");
        } catch (const Failure& failure) {
            results_.fail(task, failure);
            return true;
        }
    }

    // An idle worker of the owner, a new one, or one that has room in its queue.
    Worker* free_worker(const Owner& owner) {
        Worker* best = nullptr;
        for (Worker& worker : workers_) {
            if (!(worker.owner() == owner)) continue;
            if (best == nullptr || worker.tasks().size() < best->tasks().size()) best = &worker;
        }
        if (best != nullptr && best->tasks().empty()) return best;
        if (workers_.size() >= job_.jobs) retire_idle();
        if (workers_.size() < job_.jobs) return &start_worker(owner);
        // Tasks queue only if none waits for input and no other worker could take them.
        const std::size_t queue = job_.input || job_.jobs > 1 ? 1 : kQueue;
        return best != nullptr && best->tasks().size() < queue ? best : nullptr;
    }

    Worker& start_worker(const Owner& owner) {
        if (owner.change) {
            session_.detail(fmt::format("working as user {}, group {}", owner.user, owner.group));
        }
        return workers_.emplace_back(job_, owner);
    }

    void retire_idle() {
        const auto idle = std::find_if(workers_.begin(), workers_.end(),
                                       [](const Worker& w) { return w.tasks().empty(); });
        if (idle != workers_.end()) workers_.erase(idle);
    }

    // ---- waiting

    void wait_for_workers() {
        std::vector<pollfd> polled;
        for (const Worker& worker : workers_) polled.push_back({worker.socket(), POLLIN, 0});
        polled.push_back({stopped_ ? -1 : job_.signals, POLLIN, 0});
        const int ready = retry([&] { return ::poll(polled.data(), polled.size(), patience()); });
        if (ready < 0) return bear("waiting for workers");
        errors_ = 0;
        if (polled.back().revents != 0) stop();
        std::size_t n = 0;
        for (auto worker = workers_.begin(); worker != workers_.end(); ++n) {
            const auto next = std::next(worker);
            if (polled[n].revents != 0) {
                read_from(worker);
            } else if (!worker->tasks().empty() && Clock::now() >= deadline(*worker)) {
                lose(worker, true,
                     "it took longer than " +
                         counted(static_cast<std::uint64_t>(limit_.count()), "second"));
            }
            worker = next;
        }
    }

    // Tolerates some errors of a call on which no task depends: giving up at once would leave the
    // outcome of the tasks unknown.
    void bear(const char* what) {
        constexpr unsigned kMostErrors = 10;
        if (++errors_ > kMostErrors) throw system_failure(what);
    }

    Clock::time_point deadline(const Worker& worker) const {
        return worker.began() + (worker.passed() ? std::min(limit_, kGrace) : limit_);
    }

    // Milliseconds until the first deadline.
    int patience() const {
        Clock::time_point first = Clock::time_point::max();
        for (const Worker& worker : workers_) {
            if (!worker.tasks().empty()) first = std::min(first, deadline(worker));
        }
        if (first == Clock::time_point::max()) return -1;
        const auto left = std::chrono::ceil<milliseconds>(first - Clock::now()).count();
        return static_cast<int>(std::clamp<long long>(left, 0, INT32_MAX));
    }

    // Each worker decides whether its task can still be given up.
    void stop() {
        stopped_ = true;
        for (const Worker& worker : workers_) worker.signal(SIGTERM);
    }

    using Workers = std::list<Worker>;

    void read_from(Workers::iterator worker) {
        try {
            const bool alive = hear(*worker);
            while (auto message = worker->incoming.next()) take(*worker, std::move(*message));
            if (!alive) lose(worker, false, "");
        } catch (const std::exception& e) {
            lose(worker, true, e.what());
        }
    }

    // False if the worker is gone.
    bool hear(Worker& worker) {
        try {
            return worker.incoming.fill(worker.socket());
        } catch (const Failure&) {
            bear("reading from a worker");
            return true;
        }
    }

    void take(Worker& worker, Message message) {
        if (worker.tasks().empty()) throw Failure(kExitSoftware, "a worker has an answer too many");
        const std::size_t task = worker.tasks().front();
        const Event event = message.event;
        if (event == Event::fed) worker.begin_anew();
        if (event == Event::passed) worker.pass();
        if (event == Event::end) worker.finish_task();
        results_.put(task, std::move(message));
    }

    // A worker has ended or must end. Its current task is over; other workers get its later ones.
    void lose(Workers::iterator worker, bool kill, const string& why) {
        Worker lost = std::move(*worker);
        workers_.erase(worker);
        if (lost.tasks().empty()) return;
        const std::size_t task = lost.tasks().front();
        again_.insert(again_.end(), std::next(lost.tasks().begin()), lost.tasks().end());
        if (kill) lost.stop([&](Message message) { return take_last(lost, std::move(message)); });
        const int status = lost.end(kill);
        if (lost.tasks().empty() || lost.tasks().front() != task) return;
        clean_up(task, lost.owner());
        const string text = why.empty() ? end_text(status) : why;
        if (lost.passed()) {
            results_.put(task, {Event::warning, {{"text", text + "; its sizes need a recount"}}});
            results_.put(task, {Event::end, {{"code", int{kExitOk}}}});
        } else {
            results_.fail(task, {kExitTryAgain, text});
        }
    }

    // Takes a message of a worker that was asked to give up its task. False if this was the last
    // one. Drops errors and a failing end, as the reason for asking is shown instead.
    bool take_last(Worker& worker, Message message) {
        const bool end = message.event == Event::end;
        const bool gave_up = end && message.body.value("code", 1) != kExitOk;
        if (message.event != Event::error && !gave_up) take(worker, std::move(message));
        return !end;
    }

    // Calls after_kill in a new worker, for which it waits only a short time.
    void clean_up(std::size_t task, const Owner& owner) {
        if (!job_.after_kill) return;
        Job job;
        job.work = [this](std::size_t n, int, Report&) {
            job_.after_kill(n);
            return kExitOk;
        };
        try {
            Worker worker(job, owner);
            worker.give(task, -1);
            pollfd polled = {worker.socket(), POLLIN, 0};
            const auto wait = std::chrono::duration_cast<milliseconds>(kAfterKill).count();
            retry([&] { return ::poll(&polled, 1, static_cast<int>(wait)); });
        } catch (const Failure&) {
            return;  // the task has failed already and is reported
        }
    }

    const Session& session_;
    const Job& job_;
    const seconds limit_;
    Results results_;
    Workers workers_;
    std::size_t next_ = 0;
    std::deque<std::size_t> again_;  // tasks whose worker was lost before it began them
    std::optional<Owner> owner_;     // the owner of the task that is handed out next
    bool stopped_ = false;
    unsigned errors_ = 0;  // tolerated since the last successful wait
};

}  // namespace

JobResult worst_of(const JobResult& a, const JobResult& b) {
    return {std::max(a.code, b.code), std::max(a.left_out, b.left_out)};
}

JobResult run_job(Session& session, const Job& job) { return Run(session, job).run(); }

}  // namespace Tessaly::tool
