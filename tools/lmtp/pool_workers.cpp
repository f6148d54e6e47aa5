// The pool's side that listens to its workers: what they report, how long they take, how they end.
#include <fmt/format.h>

#include <algorithm>
#include <boost/asio/post.hpp>
#include <csignal>
#include <utility>

#include "tools/lmtp/pool.h"

namespace Tessaly::tool::lmtp {

namespace {

using boost::system::error_code;
using std::string;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds kTick{250};
constexpr int kMostLost = 3;       // workers on one task
constexpr seconds kSlow{2};        // a task that takes longer
constexpr seconds kPatience{2};    // between TERM and KILL
constexpr seconds kAfterPass{10};  // for what is left to do once a message is delivered

Failure failure_of(const Json& body) {
    return {static_cast<ExitCode>(body.value("code", int{kExitTryAgain})),
            body.value("text", string()), body.value("errno", 0), body.value("status", string())};
}

}  // namespace

// ---- messages

void Pool::listen_to(Workers::iterator worker) {
    const std::weak_ptr<char> alive = worker->alive;
    worker->stream.async_wait(Stream::wait_read, [this, worker, alive](const error_code& error) {
        if (!error && !alive.expired()) hear(worker);
    });
}

void Pool::hear(Workers::iterator worker) {
    try {
        if (!worker->incoming.fill(worker->stream.native_handle())) return lose(worker);
        while (const auto message = worker->incoming.next()) take(*worker, *message);
    } catch (const std::exception& e) {  // its user may have tampered with it
        worker->failure = Failure(kExitTryAgain, e.what());
        signal(*worker, SIGKILL);
        return lose(worker);
    }
    if (!worker->busy && is_superfluous(*worker)) return lose(worker);
    listen_to(worker);
    if (worker->busy) return;
    dispatch(worker->key);
    serve_others();
}

void Pool::take(Worker& worker, const Message& message) {
    const Json& body = message.body;
    switch (message.event) {
        case Event::object: {
            const string folder = body.value("folder", string());
            return answer(worker, {{250, "2.0.0", "Saved as " + worker.current.task.ident},
                                   folder,
                                   body.value("size", std::uint64_t{0})});
        }
        case Event::warning:
            return log_.line(Level::warning,
                             worker.current.task.ident + ": " + body.value("text", string()));
        case Event::error:
            if (!worker.failure) worker.failure = failure_of(body);
            return;
        case Event::fed:
            worker.began = Clock::now();
            return;
        case Event::passed:
            worker.passed = true;
            worker.began = Clock::now();
            return;
        case Event::end:
            return end_task(worker);
        case Event::detail:
        case Event::progress:
            return;
    }
}

void Pool::answer(Worker& worker, const Outcome& outcome) {
    if (!std::exchange(worker.answered, true) && worker.current.task.done) {
        auto done = std::move(worker.current.task.done);
        worker.current.task.done = {};
        boost::asio::post(context_, [done = std::move(done), outcome] { done(outcome); });
    }
}

void Pool::end_task(Worker& worker) {
    if (!worker.busy) throw Failure(kExitSoftware, "a worker has an answer too many");
    if (!worker.failure && worker.current.task.what == "deliver" && !worker.answered) {
        worker.failure = Failure(kExitSoftware, "a worker has no answer");
    }
    answer(worker, {worker.failure ? reply_to(*worker.failure) : Reply{250, "2.1.5", "OK"}});
    if (worker.failure) parent_.forget_owner(worker.current.mailbox);
    forget_slow(worker);
    worker.busy = false;
    worker.proven = true;
    worker.current = {};
}

void Pool::forget_slow(Worker& worker) {
    if (!std::exchange(worker.slow, false)) return;
    --slow_workers_;
    slow_.erase(slow_.find(worker.current.mailbox));
}

// ---- the end of a worker

void Pool::lose(Workers::iterator worker) {
    const Key key = worker->key;
    if (worker->busy) {
        forget_slow(*worker);
        if (!take_back(*worker)) fail_task(*worker);
    }
    workers_.erase(worker);
    --queues_[key].workers;
    serve_others();
    dispatch(key);
}

// Another worker gets the task of one that ended without having read it. A worker that was idle may
// end at any time; tasks on which new workers end are given up.
bool Pool::take_back(Worker& worker) {
    const bool begun = worker.sent && !worker.incoming.unread();
    if (begun || worker.failure || stopped_) return false;
    Task& task = worker.current.task;
    if (!worker.proven && ++task.lost > kMostLost) return false;
    queues_[worker.key].waiting.push_front(std::move(worker.current));
    return true;
}

// A message may be in new without being counted: the mailbox is marked, by another worker if this
// one is lost, too.
void Pool::fail_task(Worker& worker) {
    if (!worker.failure) worker.failure = Failure(kExitTryAgain, "its worker was ended");
    const Task& task = worker.current.task;
    const Task mark = {"mark", task.address, "", {}, {}, task.lost + 1};
    const bool begun = task.what != "check" && mark.lost <= kMostLost;
    answer(worker, {reply_to(*worker.failure)});
    if (begun && !stopped_) submit(mark);
}

// ---- time limits

void Pool::signal(Worker& worker, int number) {
    worker.signal = number;
    worker.signalled = Clock::now();
    parent_.signal(worker.process, number);
}

void Pool::tick() {
    timer_.expires_after(kTick);
    timer_.async_wait([this](const error_code& error) {
        if (error) return;
        const auto now = Clock::now();
        for (Worker& worker : workers_) {
            if (worker.busy) look_at(worker, now);
        }
        for (auto& [key, queue] : queues_) {
            while (!queue.waiting.empty() && now - queue.waiting.front().since > limit_) {
                finish(queue.waiting.front().task,
                       {reply_to(Failure(kExitTryAgain, "the mailbox is busy"))});
                queue.waiting.pop_front();
            }
        }
        serve_others();
        tick();
    });
}

void Pool::look_at(Worker& worker, Clock::time_point now) {
    const auto took = now - worker.began;
    if (!worker.slow && took > kSlow) {
        worker.slow = true;
        ++slow_workers_;
        slow_.insert(worker.current.mailbox);
    }
    const seconds limit = worker.passed ? std::min(limit_, seconds(kAfterPass)) : limit_;
    const bool too_many = worker.slow && slow_workers_ > 2 * most_;
    if (worker.signal == 0 && (took > limit || too_many)) {
        worker.failure =
            Failure(kExitTryAgain, fmt::format("it took longer than {} seconds", limit_.count()));
        signal(worker, SIGTERM);
    } else if (worker.signal == SIGTERM && now - worker.signalled > kPatience) {
        signal(worker, SIGKILL);
    }
}

}  // namespace Tessaly::tool::lmtp
