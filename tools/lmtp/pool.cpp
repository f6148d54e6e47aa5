#include "tools/lmtp/pool.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <csignal>
#include <utility>

#include "tools/cli/address.h"
#include "tools/cli/passing.h"
#include "tools/cli/text.h"
#include "tools/lmtp/worker.h"

namespace Tessaly::tool::lmtp {

namespace {

using std::string;
using std::chrono::seconds;

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

// ---- the end

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
