// Work that several threads do, and its results in their order.
#include "tools/cli/in_order.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

using Tessaly::tool::in_order;

namespace {

using Numbers = std::vector<std::size_t>;

void wait_until(const std::atomic<std::size_t>& number, std::size_t least) {
    using Clock = std::chrono::steady_clock;
    for (const auto end = Clock::now() + std::chrono::seconds(20); number < least;) {
        if (Clock::now() > end) throw std::runtime_error("waited in vain");
        std::this_thread::yield();
    }
}

TEST(InOrder, EachIsDoneOnceAndTakenInOrder) {
    for (const std::size_t jobs : {0U, 1U, 2U, 7U}) {
        for (const std::size_t count : {0U, 1U, 2U, 1023U, 1024U, 1025U, 5000U}) {
            std::vector<std::atomic<int>> done(count);
            Numbers taken;
            in_order(
                count, jobs,
                [&](std::size_t n) {
                    ++done[n];
                    return std::to_string(n);
                },
                [&](std::size_t n, const std::string& text) {
                    EXPECT_EQ(text, std::to_string(n));
                    taken.push_back(n);
                });
            Numbers all(count);
            std::iota(all.begin(), all.end(), 0);
            EXPECT_EQ(taken, all) << jobs;
            for (const auto& times : done) EXPECT_EQ(times, 1);
        }
    }
}

// The first results are kept back, so that nobody can go on alone.
TEST(InOrder, SoManyWorkAtATime) {
    constexpr std::size_t kJobs = 5;
    std::atomic<std::size_t> begun = 0, working = 0, most = 0;
    in_order(
        100, kJobs,
        [&](std::size_t) {
            const std::size_t now = ++working;
            for (std::size_t seen = most; seen < now && !most.compare_exchange_weak(seen, now);) {
            }
            ++begun;
            wait_until(begun, kJobs);
            --working;
            return 0;
        },
        [](std::size_t, int) {});
    EXPECT_EQ(most, kJobs);
}

TEST(InOrder, OneJobIsDoneByTheCaller) {
    const auto self = std::this_thread::get_id();
    for (const auto& [count, jobs] : {std::pair{3U, 1U}, {1U, 8U}}) {
        in_order(
            count, jobs, [](std::size_t) { return std::this_thread::get_id(); },
            [&](std::size_t, std::thread::id id) { EXPECT_EQ(id, self); });
    }
}

// Results that nobody can take yet do not pile up.
TEST(InOrder, AnotherThousandAndNoMoreAreDoneAhead) {
    constexpr std::size_t kAhead = 1024;
    std::atomic<std::size_t> done = 0;
    in_order(
        3 * kAhead, 2,
        [&](std::size_t n) {
            if (n == 0) {
                wait_until(done, kAhead - 1);
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
                EXPECT_EQ(done, kAhead - 1);
            }
            return ++done;
        },
        [](std::size_t, std::size_t) {});
    EXPECT_EQ(done, 3 * kAhead);
}

TEST(InOrder, WhatWorkThrowsComesAfterTheResultsBefore) {
    for (const std::size_t jobs : {1U, 4U}) {
        std::atomic<std::size_t> begun = 0;
        Numbers taken;
        EXPECT_THROW(in_order(
                         100000, jobs,
                         [&](std::size_t n) {
                             ++begun;
                             if (n == 10) throw std::invalid_argument("ten");
                             return n;
                         },
                         [&](std::size_t n, std::size_t) { taken.push_back(n); }),
                     std::invalid_argument);
        EXPECT_EQ(taken, (Numbers{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
        EXPECT_LT(begun, 2000U);
    }
}

TEST(InOrder, WhatTakeThrowsEndsTheWork) {
    for (const std::size_t jobs : {1U, 4U}) {
        std::atomic<std::size_t> begun = 0;
        EXPECT_THROW(in_order(
                         100000, jobs,
                         [&](std::size_t n) {
                             ++begun;
                             return n;
                         },
                         [](std::size_t n, std::size_t) {
                             if (n == 10) throw std::invalid_argument("ten");
                         }),
                     std::invalid_argument);
        EXPECT_LT(begun, 2000U);
    }
}

}  // namespace
