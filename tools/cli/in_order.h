// in_order - the same work on many things, several at a time, whose results are taken in order.
#ifndef TSMAIL_TOOLS_CLI_IN_ORDER_H
#define TSMAIL_TOOLS_CLI_IN_ORDER_H

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstddef>
#include <exception>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace Tessaly::tool {

// Hands out the numbers below `count` one by one, and the results back in the order of the numbers.
// For any number of threads that work and one that takes.
template <class Result>
class OrderedResults {
  public:
    explicit OrderedResults(std::size_t count) : count_(count) {}

    // The next number to work on; nothing if there is none, or it was told to stop. Waits while so
    // many results lie there that the one who takes has to catch up.
    std::optional<std::size_t> next() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return stopped_ || next_ < taken_ + kAhead; });
        if (stopped_ || next_ == count_) return std::nullopt;
        return next_++;
    }
    // Runs the work on a number and keeps its result, or what it threw.
    template <class Work>
    void work_on(std::size_t number, const Work& work) {
        Slot slot;
        try {
            slot.result = work(number);
        } catch (...) {
            slot.error = std::current_exception();
        }
        const std::lock_guard lock(mutex_);
        slots_[number % kAhead] = std::move(slot);
        changed_.notify_all();
    }
    // The next result in order; throws what its work threw.
    Result take() {
        std::unique_lock lock(mutex_);
        Slot& slot = slots_[taken_ % kAhead];
        changed_.wait(lock, [&] { return slot.result || slot.error; });
        const Slot made = std::exchange(slot, {});
        ++taken_;
        changed_.notify_all();
        if (made.error) std::rethrow_exception(made.error);
        return *made.result;
    }
    void stop() {
        const std::lock_guard lock(mutex_);
        stopped_ = true;
        changed_.notify_all();
    }

  private:
    static constexpr std::size_t kAhead = 1024;
    struct Slot {
        std::optional<Result> result;
        std::exception_ptr error;
    };

    const std::size_t count_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::size_t next_ = 0;
    std::size_t taken_ = 0;
    bool stopped_ = false;
    std::array<Slot, kAhead> slots_;
};

// Calls work(i) for each i below count, in up to `jobs` threads at a time (in the caller's if that
// is 1), and take(i, result) in the caller's thread, in order, as soon as the result is there. What
// work or take throws is thrown from here; what has begun is ended before, nothing more is begun.
template <class Work, class Take>
void in_order(std::size_t count, std::size_t jobs, const Work& work, const Take& take) {
    OrderedResults<decltype(work(count))> results(count);
    std::vector<std::jthread> threads;
    struct Stop {
        decltype(results)& all;
        ~Stop() { all.stop(); }
    } const stop{results};
    const auto run = [&] {
        while (const auto number = results.next()) results.work_on(*number, work);
    };
    const std::size_t wanted = std::min(jobs, count);
    try {
        while (wanted > 1 && threads.size() < wanted) threads.emplace_back(run);
    } catch (const std::system_error&) {
        // The system has no room for another thread: fewer do it, too.
    }
    for (std::size_t i = 0; i < count; ++i) {
        if (threads.empty()) results.work_on(*results.next(), work);
        take(i, results.take());
    }
}

}  // namespace Tessaly::tool

#endif
