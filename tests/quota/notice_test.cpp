// The notice mail: what reaches the submission program, and what stays as it was in the caller.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <tessaly/MailUserId.h>
#include <tessaly/support.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <set>
#include <thread>

#include "quota/failing_new.h"
#include "quota/recorded.h"
#include "testing/files.h"
#include "testing/processes.h"

using namespace quota_test;
using namespace testing_files;
using namespace testing_processes;

namespace {
const char* configured_postmaster = nullptr;
}

// The configuration of this program: the library calls the executable's function first.
extern "C" const char* cfg_get_postmaster(void) { return configured_postmaster; }

namespace {

constexpr char kExitsUnread[] = "exec <&-\nexit 75\n";
// More than a pipe holds, so that the writer notices that the reader has ended.
const std::string kLargeBody(1 << 20, 'x');

int send_large() { return tsl_send_quota_msg("a@b", "c@d", "s", kLargeBody.c_str()); }

// A plain caller of popen. It has no buffer: if the submission program had ended, the close would
// report the unwritten buffer and not the program's status.
int literal_send(const std::string& text) {
    std::FILE* program = ::popen("/bin/sendmail -Am -bm -t", "w");
    std::setvbuf(program, nullptr, _IONBF, 0);
    std::fputs(text.c_str(), program);
    return ::pclose(program);
}

// Everything that a caller has set up for signals.
struct Signals {
    std::vector<struct sigaction> actions;
    std::vector<bool> blocked;
    std::vector<bool> pending;

    static Signals now() {
        Signals signals;
        sigset_t mask;
        sigset_t pending;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        sigpending(&pending);
        for (int n = 1; n < NSIG; ++n) {
            struct sigaction action = {};
            ::sigaction(n, nullptr, &action);
            signals.actions.push_back(action);
            signals.blocked.push_back(sigismember(&mask, n) == 1);
            signals.pending.push_back(sigismember(&pending, n) == 1);
        }
        return signals;
    }
    void expect_same(const Signals& other) const {
        EXPECT_EQ(blocked, other.blocked);
        EXPECT_EQ(pending, other.pending);
        for (std::size_t i = 0; i < actions.size(); ++i) {
            EXPECT_EQ(actions[i].sa_handler, other.actions[i].sa_handler) << i + 1;
            EXPECT_EQ(actions[i].sa_flags, other.actions[i].sa_flags) << i + 1;
        }
    }
};

std::atomic<int> caught = 0;
void count_signal(int) { ++caught; }

class Notice : public testing::Test {
  protected:
    Notice() {
        forget_sent();
        ::unlink(kRecorderDoes);
        configured_postmaster = "hostmaster@site.test";
        caught = 0;
    }
};

}  // namespace

TEST_F(Notice, ReachesTheProgramByteForByte) {
    struct Row {
        const char* from;
        const char* to;
        const char* subject;
        const char* body;
        std::string text;
    };
    const Row rows[] = {
        {nullptr, "ann@site.test", nullptr, nullptr,
         "From:hostmaster@site.test\nTo:ann@site.test\nSubject:(no subject)\nX-Tessaly-Quota: 1\n"
         "Precedence: bulk\n\n\n.\n"},
        {"q@site.test", "ann@site.test", "Your mailbox", "It is full.",
         "From:q@site.test\nTo:ann@site.test\nSubject:Your mailbox\nX-Tessaly-Quota: 1\n"
         "Precedence: bulk\n\nIt is full.\n.\n"},
        {nullptr, nullptr, "s", "b",
         notice("hostmaster@site.test", "hostmaster@site.test", "s", "b")},
        {"q@site.test", nullptr, "s", "b", notice("q@site.test", "hostmaster@site.test", "s", "b")},
        {"", "", "", "", notice("", "", "", "")},
        {"100%d", "%s%n", "90 % full", "%s\n%%\n",
         notice("100%d", "%s%n", "90 % full", "%s\n%%\n")},
        {"a", "b", "s\nX-More: 1", "one\ntwo\n.\nthree\n\n",
         notice("a", "b", "s\nX-More: 1", "one\ntwo\n.\nthree\n\n")},
        {"\xc3\xa4@b", "c", "\xff\x01\r", "\t\xf0\x9f\x93\xac",
         notice("\xc3\xa4@b", "c", "\xff\x01\r", "\t\xf0\x9f\x93\xac")},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(tsl_send_quota_msg(row.from, row.to, row.subject, row.body), 0);
        EXPECT_EQ(sent(), row.text);
        forget_sent();
    }
}

TEST_F(Notice, IsHandedOverWithTheseFlags) {
    tsl_send_quota_msg("a", "b", "s", "t");
    ASSERT_EQ(recorded(".args").size(), 1U);
    EXPECT_EQ(read(recorded(".args")[0]), "-Am\n-bm\n-t\n");
}

TEST_F(Notice, OfAnySizeArrivesWhole) {
    // Around the size of a pipe and beyond.
    for (const std::size_t size : {4095U, 4096U, 65535U, 65536U, 65537U, 3U << 20}) {
        const std::string body(size, 'b');
        EXPECT_EQ(tsl_send_quota_msg("a", "b", "s", body.c_str()), 0);
        EXPECT_TRUE(sent() == notice("a", "b", "s", body)) << size;
        forget_sent();
    }
}

TEST_F(Notice, AnswersWithTheProgramsStatus) {
    const std::pair<const char*, int> rows[] = {
        {"exit 0", 0},           {"exit 1", 1 << 8},     {"cat >/dev/null; exit 75", 75 << 8},
        {kExitsUnread, 75 << 8}, {"exit 255", 255 << 8}, {"kill -KILL $$", SIGKILL},
    };
    for (const auto& [does, status] : rows) {
        write(kRecorderDoes, does);
        const int answer = tsl_send_quota_msg("a", "b", "s", "t");
        ::signal(SIGPIPE,
                 SIG_IGN);  // the signal of a program that has ended kills the plain caller
        EXPECT_EQ(answer, literal_send("t")) << does;
        ::signal(SIGPIPE, SIG_DFL);
        // A shell that stays between them reports a signal as an exit code.
        if (status != SIGKILL || WIFSIGNALED(answer)) {
            EXPECT_EQ(answer, status) << does;
        }
    }
}

TEST_F(Notice, AProgramThatDoesNotReadSendsNoSignal) {
    write(kRecorderDoes, kExitsUnread);
    for (void (*handler)(int) : {SIG_DFL, SIG_IGN, count_signal}) {
        ::signal(SIGPIPE, handler);
        const Signals before = Signals::now();
        EXPECT_EQ(send_large(), 75 << 8);
        Signals::now().expect_same(before);
    }
    EXPECT_EQ(caught, 0);
    // The handler would have been called.
    std::FILE* pipe = ::popen("exec <&-", "w");
    pollfd broken = {::fileno(pipe), 0, 0};
    ::poll(&broken, 1, 5000);
    EXPECT_EQ(::write(::fileno(pipe), "x", 1), -1);
    ::pclose(pipe);
    EXPECT_EQ(caught, 1);
}

TEST_F(Notice, AnOlderSignalStaysPending) {
    write(kRecorderDoes, kExitsUnread);
    ::signal(SIGPIPE, count_signal);
    sigset_t pipe_signal;
    sigemptyset(&pipe_signal);
    sigaddset(&pipe_signal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_signal, nullptr);

    EXPECT_EQ(send_large(), 75 << 8);
    EXPECT_FALSE(Signals::now().pending[SIGPIPE - 1]);

    ::raise(SIGPIPE);
    const Signals before = Signals::now();
    ASSERT_TRUE(before.pending[SIGPIPE - 1]);
    EXPECT_EQ(send_large(), 75 << 8);
    Signals::now().expect_same(before);
    EXPECT_EQ(caught, 0);
    pthread_sigmask(SIG_UNBLOCK, &pipe_signal, nullptr);
    EXPECT_EQ(caught, 1);
}

TEST_F(Notice, TheProgramGetsTheCallersSignalMask) {
    write(kRecorderDoes, "grep -E '^Sig(Blk|Ign)' /proc/self/status >/tmp/signals\n");
    const auto signals_of = [](const std::function<void()>& start) {
        start();
        return read("/tmp/signals");
    };
    EXPECT_EQ(signals_of([] { tsl_send_quota_msg("a", "b", "s", "t"); }),
              signals_of([] { literal_send("t"); }));
}

TEST_F(Notice, LeavesOtherChildrenAlone) {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(7);
    siginfo_t info;
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(tsl_send_quota_msg("a", "b", "s", "t"), 0);
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 7);
    EXPECT_EQ(::waitpid(-1, &status, WNOHANG), -1) << "its own child is not reaped";
}

TEST_F(Notice, ACallerThatIgnoresItsChildrenGetsNoStatus) {
    ::signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(tsl_send_quota_msg("a", "b", "s", "t"), -1);
    ::signal(SIGCHLD, SIG_DFL);
    EXPECT_EQ(sent(), notice("a", "b", "s", "t"));
}

TEST_F(Notice, SurvivesInterruptions) {
    write(kRecorderDoes, "sleep 0.2\n");
    struct sigaction action = {};
    action.sa_handler = count_signal;  // and no SA_RESTART
    ::sigaction(SIGALRM, &action, nullptr);
    const itimerval often = {{0, 1000}, {0, 1000}};
    const itimerval never = {};
    ::setitimer(ITIMER_REAL, &often, nullptr);
    const int status = send_large();
    ::setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_EQ(status, 0);
    EXPECT_GT(caught, 20);
    EXPECT_TRUE(sent() == notice("a@b", "c@d", "s", kLargeBody));
}

TEST_F(Notice, FromThreadsAtOnceAllArriveWhole) {
    constexpr int kThreads = 4;
    constexpr int kEach = 5;
    std::multiset<std::string> expected;
    std::vector<std::thread> threads;
    std::atomic<int> failed = 0;
    const auto body_of = [](int thread, int n) {
        return std::string(100000, static_cast<char>('a' + thread)) + std::to_string(n);
    };
    for (int t = 0; t < kThreads; ++t) {
        for (int n = 0; n < kEach; ++n) expected.insert(notice("a", "b", "s", body_of(t, n)));
        threads.emplace_back([&, t] {
            for (int n = 0; n < kEach; ++n) {
                failed += tsl_send_quota_msg("a", "b", "s", body_of(t, n).c_str()) != 0;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(failed, 0);
    std::multiset<std::string> arrived;
    for (const std::string& file : recorded(".input")) arrived.insert(read(file));
    EXPECT_TRUE(arrived == expected);
}

TEST_F(Notice, FromAChildOfForkArrives) {
    Child child([] { return tsl_send_quota_msg("a", "b", "s", "t"); });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(sent(), notice("a", "b", "s", "t"));
}

TEST_F(Notice, WorksWithTheStandardDescriptorsClosed) {
    for (int open = 0; open <= 2; ++open) {
        Child child([open] {
            for (int fd = 0; fd <= 2; ++fd) {
                if (fd != open) ::close(fd);
            }
            return send_large();
        });
        EXPECT_EQ(child.wait(), 0);
        EXPECT_TRUE(sent() == notice("a@b", "c@d", "s", kLargeBody));
        forget_sent();
    }
    Child child([] {
        for (int fd = 0; fd <= 2; ++fd) ::close(fd);
        return send_large();
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_TRUE(sent() == notice("a@b", "c@d", "s", kLargeBody));
}

TEST_F(Notice, WithoutDescriptorsNothingIsStarted) {
    Child child([] {
        const int next = ::dup(0);
        ::close(next);
        const rlimit none_left = {static_cast<rlim_t>(next), static_cast<rlim_t>(next)};
        ::setrlimit(RLIMIT_NOFILE, &none_left);
        return tsl_send_quota_msg("a", "b", "s", "t");
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_TRUE(recorded("").empty());
}

TEST_F(Notice, WithoutMemoryNothingIsStarted) {
    int failed = 0;
    for (bool fired = true; fired; failed += fired) {
        {
            const FailingNew failing(failed);
            EXPECT_EQ(tsl_send_quota_msg("a", "b", "s", kLargeBody.c_str()), 0);
            fired = failing.fired();
        }
        EXPECT_EQ(recorded("").empty(), fired);
    }
    EXPECT_GT(failed, 0);
    EXPECT_TRUE(sent() == notice("a", "b", "s", kLargeBody));
}

TEST_F(Notice, LeavesNoDescriptorOpen) {
    const std::size_t before = open_descriptors();
    tsl_send_quota_msg("a", "b", "s", "t");
    write(kRecorderDoes, kExitsUnread);
    send_large();
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(Notice, AnEmptyPostmasterCountsAsNone) {
    for (const char* nothing : {"", static_cast<const char*>(nullptr)}) {
        configured_postmaster = nothing;
        tsl_send_quota_msg(nullptr, nullptr, "s", "t");
        EXPECT_EQ(sent(), notice("postmaster@sandbox", "postmaster@sandbox", "s", "t"));
        forget_sent();
    }
}
