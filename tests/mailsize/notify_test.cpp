// The notification of the quota daemon, with a real socket.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <thread>

#include "testing/files.h"
#include "testing/processes.h"

namespace files = testing_files;
using Clock = std::chrono::steady_clock;

namespace {

constexpr char kSocket[] = "/tmp/quotad.socket";

class Daemon {
  public:
    Daemon() : fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::copy(std::begin(kSocket), std::end(kSocket), address.sun_path);
        ::unlink(kSocket);
        if (::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            throw std::runtime_error("bind");
        }
    }
    ~Daemon() { ::close(fd_); }

    struct Message {
        std::string text;
        socklen_t sender_length;
    };
    Message receive() const {
        char buffer[2000];
        sockaddr_un sender;
        socklen_t length = sizeof sender;
        const ssize_t n = ::recvfrom(fd_, buffer, sizeof buffer, 0,
                                     reinterpret_cast<sockaddr*>(&sender), &length);
        return {std::string(buffer, static_cast<std::size_t>(std::max<ssize_t>(n, 0))), length};
    }

  private:
    int fd_;
};

double seconds_of(const std::function<void()>& action) {
    const auto start = Clock::now();
    action();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

class Notify : public testing::Test {
  protected:
    std::size_t descriptors = files::open_descriptors();
    ~Notify() override {
        EXPECT_EQ(files::open_descriptors(), descriptors);
        ::unlink(kSocket);
    }
};

TEST_F(Notify, SendsTheChange) {
    const struct {
        const char* folder;
        long delta;
        const char* text;
    } rows[] = {
        {"/var/spool/m/u/Inbox", 2048, "S2048,F(/var/spool/m/u/Inbox)"},
        {"/f", 0, "S0,F(/f)"},
        {"/f", -512, "S-512,F(/f)"},
        {"/f", LONG_MAX, "S9223372036854775807,F(/f)"},
        {"/f", LONG_MIN, "S-9223372036854775808,F(/f)"},
        {"", 1, "S1,F()"},
        {"/a b)\n,F(", 1, "S1,F(/a b)\n,F()"},
    };
    {
        const Daemon daemon;
        for (const auto& [folder, delta, text] : rows) {
            const std::string expected = text;
            EXPECT_EQ(tsl_update_mail_folder_size(folder, delta),
                      static_cast<int>(expected.size()));
            const auto message = daemon.receive();
            EXPECT_EQ(message.text, expected);
            EXPECT_EQ(message.sender_length, 0U) << "the sender is bound";
        }
        EXPECT_EQ(std::string(rows[0].text).size(), 29U);
    }
}

TEST_F(Notify, SendsAWholeNameOrNothing) {
    const Daemon daemon;
    ::testing::internal::CaptureStderr();
    const std::string longest(575 - 6, 'f');  // "S1,F()" around it
    EXPECT_EQ(tsl_update_mail_folder_size(longest.c_str(), 1), 575);
    EXPECT_EQ(daemon.receive().text, "S1,F(" + longest + ")");
    EXPECT_EQ(tsl_update_mail_folder_size((longest + "f").c_str(), 1), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_EQ(tsl_update_mail_folder_size(std::string(100000, 'f').c_str(), 1), -1);
    EXPECT_EQ(tsl_update_mail_folder_size(nullptr, 1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(tsl_update_mail_folder_size("/f", 7), 8);
    EXPECT_EQ(daemon.receive().text, "S7,F(/f)");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST_F(Notify, NobodyThere) {
    int result = 0, error = 0;
    ::testing::internal::CaptureStderr();
    const auto notify = [&] {
        result = tsl_update_mail_folder_size("/f", 1);
        error = errno;
    };
    EXPECT_LT(seconds_of(notify), 1);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, ENOENT);
    { const Daemon gone; }
    EXPECT_LT(seconds_of(notify), 1);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, ECONNREFUSED);
    ::unlink(kSocket);
    files::write(kSocket, "a file");
    notify();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST_F(Notify, PrintsThatThereIsNoSocketToBeHad) {
    const Daemon daemon;
    ::testing::internal::CaptureStderr();
    testing_processes::Child child([] {
        std::vector<int> taken;
        for (int fd; (fd = ::dup(0)) >= 0;) taken.push_back(fd);
        return tsl_update_mail_folder_size("/f", 1) == -1 && errno == EMFILE ? 0 : 1;
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "socket: Too many open files\n");
}

TEST_F(Notify, ASlowDaemonLosesNothing) {
    constexpr int kBurst = 10000;
    const Daemon daemon;
    testing_processes::Child sender([] {
        for (int i = 0; i < kBurst; ++i) {
            if (tsl_update_mail_folder_size("/f", i) <= 0) return 1;
        }
        return 0;
    });
    for (int i = 0; i < kBurst; ++i) {
        if (i % 1000 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (i % 10 == 0) std::this_thread::sleep_for(std::chrono::microseconds(50));
        ASSERT_EQ(daemon.receive().text, "S" + std::to_string(i) + ",F(/f)");
    }
    EXPECT_EQ(sender.wait(), 0);
}

// A daemon that does not read. When its queue is full, each notification waits for its full time
// and fails.
void fill_queue() {
    for (int i = 0; i < 100000; ++i) {
        bool full = false;
        const double seconds =
            seconds_of([&] { full = tsl_update_mail_folder_size("/f", 1) == -1; });
        if (!full) continue;
        EXPECT_EQ(errno, EAGAIN);
        EXPECT_GT(seconds, 2);
        EXPECT_LT(seconds, 6);
        return;
    }
    ADD_FAILURE() << "the queue never was full";
}

TEST_F(Notify, AStoppedDaemonDelaysAFewSeconds) {
    const Daemon daemon;
    ::testing::internal::CaptureStderr();
    fill_queue();
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

// So often that a signal comes between the end of the time and the kernel's next tick.
TEST_F(Notify, SignalsDoNotPutTheEndOff) {
    const Daemon daemon;
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ::sigaction(SIGALRM, &action, nullptr);
    const struct itimerval often = {{0, 1000}, {0, 1000}};
    ::setitimer(ITIMER_REAL, &often, nullptr);
    fill_queue();
    const struct itimerval never = {};
    ::setitimer(ITIMER_REAL, &never, nullptr);
}

}  // namespace
