#include "tools/lmtp/pool.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/post.hpp>
#include <csignal>
#include <cstring>
#include <utility>

#include "tools/cli/address.h"
#include "tools/cli/passing.h"
#include "tools/cli/text.h"
#include "tools/lmtp/worker.h"

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

Failure failure_of(const Answer& answer) {
    const auto length = std::min<std::size_t>(answer.length, sizeof answer.text);
    return {static_cast<ExitCode>(answer.code), string(answer.text, length), answer.error};
}

Failure ending() { return {kExitTryAgain, "the service ends"}; }

}  // namespace

Pool::Pool(boost::asio::io_context& context, int questions, std::size_t workers, seconds limit,
           const Log& log)
    : context_(context),
      parent_(context, questions),
      timer_(context),
      most_(workers),
      limit_(limit),
      log_(log) {
    tick();
}

// ---- tasks

void Pool::find(const string& address, const Task::Done& done) {
    try {
        parent_.find_owner(address, [done](const Answer& answer) {
            done({answer.code == kExitOk ? Reply{250, "2.1.5", "OK"}
                                         : reply_to(failure_of(answer))});
        });
    } catch (const Failure& failure) {
        done({reply_to(failure)});
    }
}

void Pool::submit(Task task) {
    if (stopped_) return finish(task, {reply_to(ending())});
    const string address = task.address;
    const auto kept = std::make_shared<Task>(std::move(task));
    try {
        parent_.find_owner(address, [this, kept](const Answer& answer) {
            if (answer.code != kExitOk) return finish(*kept, {reply_to(failure_of(answer))});
            enqueue(std::move(*kept), answer.owner);
        });
    } catch (const Failure& failure) {
        finish(*kept, {reply_to(failure)});
    }
}

void Pool::enqueue(Task task, const Owner& owner) {
    if (stopped_) return finish(task, {reply_to(ending())});
    const Key key = {owner.user, owner.group};
    string mailbox = home_of(task.address);
    queues_[key].waiting.push_back({std::move(task), std::move(mailbox), Clock::now()});
    dispatch(key);
}

// The caller may be in the middle of something, so it is told later.
void Pool::finish(Task& task, const Outcome& outcome) {
    if (!task.done) return;
    boost::asio::post(context_, [done = std::move(task.done), outcome] { done(outcome); });
    task = {};
}

void Pool::dispatch(const Key& key) {
    const auto found = queues_.find(key);
    if (found == queues_.end()) return;
    Queue& queue = found->second;
    while (give_to_idle(key, queue)) {
    }
    while (need_worker(key, queue)) {
    }
    if (queue.waiting.empty() && queue.workers == 0 && queue.starting == 0) queues_.erase(found);
}

// The first task whose mailbox is not slow.
std::deque<Pool::Waiting>::iterator Pool::next_of(Queue& queue) {
    return std::find_if(queue.waiting.begin(), queue.waiting.end(),
                        [&](const Waiting& w) { return !slow_.contains(w.mailbox); });
}

bool Pool::give_to_idle(const Key& key, Queue& queue) {
    const auto next = next_of(queue);
    if (next == queue.waiting.end()) return false;
    const auto idle = std::find_if(workers_.begin(), workers_.end(),
                                   [&](const Worker& w) { return !w.busy && w.key == key; });
    if (idle == workers_.end()) return false;
    Waiting waiting = std::move(*next);
    queue.waiting.erase(next);
    give(*idle, std::move(waiting));
    return true;
}

void Pool::give(Worker& worker, Waiting waiting) {
    worker.busy = true;
    worker.current = std::move(waiting);
    worker.began = Clock::now();
    worker.passed = worker.answered = false;
    worker.failure.reset();
    const Task& task = worker.current.task;
    string packet;
    Json::to_msgpack({{"do", task.what}, {"address", task.address}, {"ident", task.ident}}, packet);
    worker.sent = send_with(worker.stream.native_handle(), packet.data(), packet.size(),
                            task.message ? task.message->fd() : -1);
    if (!worker.sent) signal(worker, SIGKILL);  // the end of its socket shows that it is gone
}

// Asks for one more worker for the queue. False if none is needed or allowed.
bool Pool::need_worker(const Key& key, Queue& queue) {
    const auto next = next_of(queue);
    if (next == queue.waiting.end() || queue.starting >= queue.waiting.size()) return false;
    if (workers_.size() - slow_workers_ + starting_ >= most_ && !retire_idle()) return false;
    ++starting_;
    ++queue.starting;
    parent_.start_worker(next->task.address,
                         [this, key, mailbox = next->mailbox](const Answer& answer, Fd socket) {
                             add_worker(key, mailbox, answer, std::move(socket));
                         });
    return true;
}

// An idle worker whose owner has no task waiting.
bool Pool::retire_idle() {
    const auto idle = std::find_if(workers_.begin(), workers_.end(), [&](const Worker& w) {
        return !w.busy && queues_[w.key].waiting.empty();
    });
    if (idle == workers_.end()) return false;
    const auto queue = queues_.find(idle->key);
    workers_.erase(idle);
    if (--queue->second.workers == 0 && queue->second.starting == 0) queues_.erase(queue);
    return true;
}

void Pool::add_worker(const Key& key, const string& mailbox, const Answer& answer, Fd socket) {
    --starting_;
    Queue& queue = queues_[key];
    --queue.starting;
    if (answer.code != kExitOk || !socket) {
        const Failure none(kExitTryAgain, "no worker");
        fail_mailbox(queue, mailbox, answer.code != kExitOk ? failure_of(answer) : none);
        return dispatch(key);
    }
    // The home may have another owner by now: the worker is that one's.
    const Key owner = {answer.owner.user, answer.owner.group};
    Queue& its = queues_[owner];
    ++its.workers;
    workers_.emplace_back(Stream(context_, socket.get()), answer.process, owner);
    socket.release();
    listen_to(std::prev(workers_.end()));
    if (owner != key) parent_.forget_owners();
    if (owner != key)
        fail_waiting(queue, Failure(kExitTryAgain, "the mailbox has another owner now"));
    dispatch(owner);
    if (owner != key) dispatch(key);
}

// The failure is about this mailbox; the owner's other mailboxes may be well.
void Pool::fail_mailbox(Queue& queue, const string& mailbox, const Failure& failure) {
    std::erase_if(queue.waiting, [&](Waiting& waiting) {
        if (waiting.mailbox != mailbox) return false;
        finish(waiting.task, {reply_to(failure)});
        return true;
    });
}

void Pool::fail_waiting(Queue& queue, const Failure& failure) {
    for (Waiting& waiting : queue.waiting) finish(waiting.task, {reply_to(failure)});
    queue.waiting.clear();
}

// Owners without a worker get one before others get one more.
void Pool::serve_others() {
    std::vector<Key> keys;
    for (const auto& [key, queue] : queues_) {
        if (!queue.waiting.empty()) keys.push_back(key);
    }
    std::stable_partition(keys.begin(), keys.end(),
                          [&](const Key& key) { return queues_[key].workers == 0; });
    for (const Key& key : keys) dispatch(key);
}

bool Pool::others_starve(const Key& key) const {
    if (workers_.size() - slow_workers_ + starting_ < most_) return false;
    return std::any_of(queues_.begin(), queues_.end(), [&](const auto& other) {
        const Queue& queue = other.second;
        return other.first != key && !queue.waiting.empty() && queue.workers + queue.starting == 0;
    });
}

// Those that were slow did not count: when they are done there may be too many.
bool Pool::is_superfluous(const Worker& worker) const {
    const bool too_many = workers_.size() - slow_workers_ > most_;
    return too_many || worker.signal != 0 || others_starve(worker.key);
}

// ---- workers' messages

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

void Pool::stop() {
    stopped_ = true;
    for (auto& [key, queue] : queues_) fail_waiting(queue, ending());
}

void Pool::give_up() {
    for (Worker& worker : workers_) {
        if (worker.busy) signal(worker, SIGTERM);
    }
}

}  // namespace Tessaly::tool::lmtp
