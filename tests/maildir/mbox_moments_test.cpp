// The mbox test on a file that changes between the stat and the open. The files are real; this
// program only chooses the moment, because its function is called in the place of the C library's.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <string>

#include "testing/files.h"
#include "testing/processes.h"

namespace {

// Called after the library has looked at a file.
std::function<void()> after_look;

}  // namespace

#pragma GCC visibility push(default)
extern "C" int stat(const char* path, struct stat* st) noexcept {
    const int result = ::fstatat(AT_FDCWD, path, st, 0);
    if (after_look) after_look();
    return result;
}
#pragma GCC visibility pop

namespace {

using testing_files::TempDir;
using testing_processes::Child;

constexpr char kMbox[] = "From user Wed Dec  2 05:53:22 1992\n";

class MboxMoment : public testing::Test {
  protected:
    MboxMoment() { testing_files::write(file_, kMbox); }
    // The answer if this happens after the stat.
    int check(std::function<void()> action) {
        int looks = 0;
        after_look = [&] {
            ++looks;
            action();
        };
        const int answer = tsl_is_mbox(file_.c_str());
        after_look = nullptr;
        EXPECT_EQ(looks, 1);
        return answer;
    }

    const TempDir dir_;
    const std::string file_ = dir_ / "file";
};

TEST_F(MboxMoment, AFifoThatTakesTheFilesPlaceIsNotWaitedFor) {
    Child child([this] {
        ::alarm(10);
        return check([this] {
            ::unlink(file_.c_str());
            ASSERT_EQ(::mkfifo(file_.c_str(), 0600), 0);
        });
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_TRUE(S_ISFIFO(testing_files::status(file_).st_mode));
}

TEST_F(MboxMoment, OtherThingsInItsPlace) {
    EXPECT_EQ(check([] {}), -14);
    EXPECT_EQ(check([this] { testing_files::write(file_, "x"); }), 0);
    EXPECT_EQ(check([this] { ::unlink(file_.c_str()); }), 0);
    testing_files::write(file_, kMbox);
    EXPECT_EQ(check([this] {
                  ::unlink(file_.c_str());
                  testing_files::make_dirs(file_);
              }),
              0);
}

// As file servers hold them: other processes wait until the holder gives the lease back.
TEST_F(MboxMoment, ALeaseOnTheFileIsWaitedFor) {
    int held[2];
    ASSERT_EQ(::pipe(held), 0);
    Child holder([&] {
        sigset_t broken;
        sigemptyset(&broken);
        sigaddset(&broken, SIGIO);
        sigprocmask(SIG_BLOCK, &broken, nullptr);
        const int fd = ::open(file_.c_str(), O_RDWR | O_CLOEXEC);
        if (::fcntl(fd, F_SETLEASE, F_WRLCK) != 0) return 77;
        if (::write(held[1], "x", 1) != 1) return 1;
        int signal;
        ::sigwait(&broken, &signal);
        ::usleep(100'000);
        return ::fcntl(fd, F_SETLEASE, F_UNLCK);
    });
    ::close(held[1]);
    char byte;
    const bool is_held = ::read(held[0], &byte, 1) == 1;
    ::close(held[0]);
    if (!is_held) GTEST_SKIP() << "this file system has no leases";
    EXPECT_EQ(tsl_is_mbox(file_.c_str()), -14);
    EXPECT_EQ(holder.wait(), 0);
}

}  // namespace
