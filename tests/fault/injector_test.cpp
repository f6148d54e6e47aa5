// The injector itself: it breaks what it is told to break, and nothing else.
#include "fault/injector.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <new>

#include "fault/allocations.h"
#include "testing/files.h"

namespace fault {

namespace {

constexpr const char* kFile = "/tmp/file";
constexpr int kOpen = 1, kFirstWrite = 2, kSecondWrite = 3, kClose = 4;

// Writes twice, "1234567890" and "x"; tells by bits which of its four calls did all they should.
int write_twice() {
    begin();
    const int fd = ::open(kFile, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    int done = fd >= 0 ? 1 << kOpen : 0;
    if (::write(fd, "1234567890", 10) == 10) done |= 1 << kFirstWrite;
    if (::write(fd, "x", 1) == 1) done |= 1 << kSecondWrite;
    if (::close(fd) == 0) done |= 1 << kClose;
    end();
    if (::fcntl(fd, F_GETFD) != -1) done |= 1;  // the close did not close
    return done;
}

constexpr int kAll = 1 << kOpen | 1 << kFirstWrite | 1 << kSecondWrite | 1 << kClose;

struct Case {
    const char* what;
    Fault fault;
    int done;
    const char* content;
};

void PrintTo(const Case& c, std::ostream* out) { *out << c.what; }

class Injector : public testing::TestWithParam<Case> {};

TEST_P(Injector, BreaksWhatItIsToldTo) {
    const Trace trace = run(write_twice, GetParam().fault);
    ASSERT_TRUE(WIFEXITED(trace.status));
    EXPECT_EQ(WEXITSTATUS(trace.status), GetParam().done);
    EXPECT_EQ(testing_files::read(kFile), GetParam().content);
    EXPECT_EQ(trace.hit.has_value(), GetParam().fault.effect != Effect::none);
}

INSTANTIATE_TEST_SUITE_P(
    Faults, Injector,
    testing::Values(
        Case{"nothing", {}, kAll, "1234567890x"},
        Case{"one write", {Effect::error, ENOSPC, 2, 1}, kAll & ~(1 << kFirstWrite), "x"},
        Case{"all from the second write on",
             {Effect::error, EIO, 3},
             1 << kOpen | 1 << kFirstWrite,
             "1234567890"},
        Case{"a close, which closes",
             {Effect::error, EINTR, 4, 1},
             kAll & ~(1 << kClose),
             "1234567890x"},
        Case{"a short write", {Effect::cut, 0, 2, 1}, kAll & ~(1 << kFirstWrite), "1234567x"},
        Case{"a full disk",
             {Effect::disk_full, 0, 2},
             kAll & ~(1 << kFirstWrite) & ~(1 << kSecondWrite),
             "1234567"}));

TEST(Injector, SeesTheCallsBetweenTheMarkersInOrder) {
    const Trace trace = run(write_twice, {});
    ASSERT_EQ(trace.calls.size(), 4u);
    EXPECT_EQ(name(trace.calls[kFirstWrite - 1]), "write");
    EXPECT_EQ(name(trace.calls[kClose - 1]), "close");
    EXPECT_FALSE(trace.calls[0].by_child);
}

TEST(Injector, SeesTheCallsInsideAStream) {
    const Trace trace = run(
        [] {
            begin();
            FILE* stream = std::fopen(kFile, "w");
            const int result = stream == nullptr || std::fputs("text", stream) < 0;
            const bool closed = std::fclose(stream) == 0;
            end();
            return closed ? result : 2;
        },
        {Effect::error, ENOSPC, 3, 1});
    EXPECT_EQ(name(*trace.hit), "write");
    EXPECT_EQ(WEXITSTATUS(trace.status), 2);
}

TEST(Injector, KillsBeforeTheCall) {
    for (const auto& [first, content] :
         {std::pair(kFirstWrite, ""), {kSecondWrite, "1234567890"}, {kClose + 1, "1234567890x"}}) {
        const Trace trace = run(write_twice, {.effect = Effect::kill, .first = first});
        ASSERT_TRUE(WIFSIGNALED(trace.status));
        EXPECT_EQ(WTERMSIG(trace.status), SIGKILL);
        EXPECT_EQ(testing_files::read(kFile), content);
    }
}

TEST(Injector, CountsAChildUntilItIsAnotherProgram) {
    const Trace trace = run(
        [] {
            begin();
            const int status = std::system("exit 3");
            end();
            return WEXITSTATUS(status);
        },
        {});
    EXPECT_EQ(WEXITSTATUS(trace.status), 3);
    ASSERT_FALSE(trace.calls.empty());
    const auto in_child = std::count_if(trace.calls.begin(), trace.calls.end(),
                                        [](const Call& call) { return call.by_child; });
    EXPECT_EQ(in_child, 1);  // its execve
}

TEST(Allocations, FailFromTheFirstOnAsOftenAsWanted) {
    begin_allocations(2, 2);
    void* const made[] = {std::malloc(1), std::calloc(1, 1), std::realloc(nullptr, 1),
                          std::malloc(1), new (std::nothrow) int};
    EXPECT_EQ(end_allocations(), 5);
    const bool failed[] = {false, true, true, false, false};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(made[i] == nullptr, failed[i]) << i;
    ::operator delete(made[4]);
    for (int i = 0; i < 4; ++i) std::free(made[i]);
}

TEST(Allocations, OfNewThrow) {
    begin_allocations(1, 1);
    std::string* text = nullptr;
    bool threw = false;
    try {
        text = new std::string(100, 'x');
    } catch (const std::bad_alloc&) {
        threw = true;
    }
    end_allocations();
    delete text;
    EXPECT_TRUE(threw);
}

}  // namespace

}  // namespace fault
