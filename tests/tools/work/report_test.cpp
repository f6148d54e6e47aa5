// The messages of a worker, as its parent hears them over a socket.
#include "tools/work/report.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tools/cli/descriptors.h"

using namespace Tessaly::tool;

namespace {

struct Ends {
    explicit Ends(int type) {
        int both[2] = {-1, -1};
        EXPECT_EQ(::socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, both), 0);
        parent.reset(both[0]);
        worker.reset(both[1]);
    }
    Fd parent, worker;
};

std::vector<Event> events_of(Incoming& incoming) {
    std::vector<Event> events;
    while (const auto message = incoming.next()) events.push_back(message->event);
    return events;
}

class Incomings : public testing::TestWithParam<int> {};

}  // namespace

TEST_P(Incomings, WhatAWorkerSaidBeforeItEnded) {
    Ends ends(GetParam());
    Report report(ends.worker.get());
    report.warn("half full");
    report.end(kExitOk);
    ends.worker.reset();
    Incoming incoming;
    EXPECT_TRUE(incoming.fill(ends.parent.get()));
    EXPECT_EQ(events_of(incoming), (std::vector{Event::warning, Event::end}));
    EXPECT_FALSE(incoming.fill(ends.parent.get()));
    EXPECT_FALSE(incoming.unread());
}

TEST_P(Incomings, AWorkerThatEndedBeforeItReadItsTask) {
    Ends ends(GetParam());
    Report report(ends.worker.get());
    report.end(kExitOk);
    ASSERT_EQ(::send(ends.parent.get(), "next", 4, 0), 4);
    ends.worker.reset();
    Incoming incoming;
    EXPECT_TRUE(incoming.fill(ends.parent.get()));
    EXPECT_EQ(events_of(incoming), std::vector{Event::end});
    EXPECT_FALSE(incoming.fill(ends.parent.get()));
    EXPECT_TRUE(incoming.unread());
}

TEST_P(Incomings, NothingHasCome) {
    Ends ends(GetParam() | SOCK_NONBLOCK);
    Incoming incoming;
    EXPECT_TRUE(incoming.fill(ends.parent.get()));
    EXPECT_EQ(events_of(incoming), std::vector<Event>());
}

INSTANTIATE_TEST_SUITE_P(Sockets, Incomings, testing::Values(SOCK_STREAM, SOCK_SEQPACKET));

TEST(Incoming, ATornMessage) {
    Ends whole(SOCK_STREAM), torn(SOCK_STREAM);
    Report(whole.worker.get()).end(kExitIo);
    char bytes[256];
    const ssize_t size = ::recv(whole.parent.get(), bytes, sizeof bytes, 0);
    ASSERT_GT(size, 8);
    Incoming incoming;
    for (ssize_t n = 0; n < size; ++n) {
        EXPECT_EQ(incoming.next(), std::nullopt);
        ASSERT_EQ(::send(torn.worker.get(), bytes + n, 1, 0), 1);
        EXPECT_TRUE(incoming.fill(torn.parent.get()));
    }
    EXPECT_EQ(events_of(incoming), std::vector{Event::end});
}
