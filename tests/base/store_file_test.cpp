#include "base/store_file.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <chrono>

#include "base/io.h"
#include "testing/files.h"
#include "testing/processes.h"

namespace files = testing_files;
using testing_files::TempDir;
using testing_processes::Child;
using namespace Tessaly::base;

namespace {

constexpr int kReplace = O_WRONLY | O_CREAT | O_TRUNC;

void link_to(const std::string& target, const std::string& link) {
    ASSERT_EQ(::symlink(target.c_str(), link.c_str()), 0);
}

int error_of(const Fd& fd) { return fd ? 0 : errno; }

TEST(StoreFile, OpensWithoutLeavingAnythingBehind) {
    const TempDir dir;
    const std::size_t before = files::open_descriptors();
    link_to("missing", dir / "link");
    link_to("link", dir / "again");
    const Fd written = open_for_writing((dir / "again").c_str(), kReplace);
    ASSERT_TRUE(written);
    EXPECT_EQ(files::open_descriptors(), before + 1);
    EXPECT_TRUE(write_all(written.get(), "x"));
    EXPECT_EQ(files::read(dir / "missing"), "x");
    const Fd read = open_for_reading((dir / "again").c_str());
    ASSERT_TRUE(read);
    EXPECT_EQ(files::open_descriptors(), before + 2);
    for (const Fd* fd : {&written, &read}) {
        EXPECT_EQ(::fcntl(fd->get(), F_GETFD), FD_CLOEXEC);
    }
}

TEST(StoreFile, RelativeLinksLeadFromWhereTheyStand) {
    const TempDir dir;
    files::make_dirs(dir / "a/b");
    link_to("b/second", dir / "a/first");
    link_to("../../file", dir / "a/b/second");
    ASSERT_TRUE(open_for_writing((dir / "a/first").c_str(), kReplace));
    EXPECT_TRUE(files::exists(dir / "file"));
}

TEST(StoreFile, ManyLinksAreFollowedACircleIsNot) {
    const TempDir dir;
    for (int i = 1; i <= 39; ++i) {
        link_to(std::to_string(i - 1), dir / std::to_string(i));
    }
    link_to("circle", dir / "circle");
    EXPECT_TRUE(open_for_writing((dir / "39").c_str(), kReplace));
    EXPECT_TRUE(files::exists(dir / "0"));
    EXPECT_EQ(error_of(open_for_writing((dir / "circle").c_str(), kReplace)), ELOOP);
    EXPECT_EQ(error_of(open_for_reading((dir / "circle").c_str())), ELOOP);
}

TEST(StoreFile, SaysWhyNot) {
    const TempDir dir;
    files::make_dirs(dir / "dir");
    files::write(dir / "file", "x");
    link_to("missing/file", dir / "dangling");
    link_to("/dev/null", dir / "null");
    EXPECT_EQ(error_of(open_for_reading((dir / "missing").c_str())), ENOENT);
    EXPECT_EQ(error_of(open_for_reading((dir / "dangling").c_str())), ENOENT);
    EXPECT_EQ(error_of(open_for_reading((dir / "dir").c_str())), EISDIR);
    EXPECT_EQ(error_of(open_for_reading((dir / "null").c_str())), EINVAL);
    EXPECT_EQ(error_of(open_for_reading("/dev/null")), EINVAL);
    EXPECT_EQ(error_of(open_for_writing((dir / "dir").c_str(), kReplace)), EISDIR);
    EXPECT_EQ(error_of(open_for_writing((dir / "dangling").c_str(), kReplace)), ENOENT);
    EXPECT_EQ(error_of(open_for_update((dir / "null").c_str(), O_RDWR)), EINVAL);
    EXPECT_EQ(error_of(open_for_emptying((dir / "file").c_str())), ENOTDIR);
    EXPECT_EQ(error_of(open_for_emptying((dir / "missing").c_str())), ENOENT);
    EXPECT_TRUE(open_for_writing((dir / "null").c_str(), kReplace));
}

// A child that holds a lease on the file. It gives the lease back when asked, or never.
class Holder {
  public:
    Holder(const std::string& path, bool gives_way)
        : child_([&] { return hold(path, gives_way, ready_[1]); }) {
        ::close(ready_[1]);
        char byte;
        holds_ = ::read(ready_[0], &byte, 1) == 1;
        ::close(ready_[0]);
    }
    bool holds() const { return holds_; }

  private:
    static int hold(const std::string& path, bool gives_way, int ready) {
        sigset_t broken;
        sigemptyset(&broken);
        sigaddset(&broken, SIGIO);
        sigprocmask(SIG_BLOCK, &broken, nullptr);
        const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
        if (::fcntl(fd, F_SETLEASE, F_WRLCK) != 0) return 77;
        if (::write(ready, "x", 1) != 1) return 1;
        int signal;
        ::sigwait(&broken, &signal);
        ::usleep(100'000);
        if (gives_way) return ::fcntl(fd, F_SETLEASE, F_UNLCK);
        ::pause();
        return 1;
    }
    struct Pipe {
        Pipe() { EXPECT_EQ(::pipe(ends), 0); }
        int operator[](int i) const { return ends[i]; }
        int ends[2];
    };
    Pipe ready_;
    Child child_;
    bool holds_;
};

TEST(Lease, ThatIsGivenBackIsWaitedFor) {
    const TempDir dir;
    files::write(dir / "file", "x");
    const Holder holder(dir / "file", true);
    if (!holder.holds()) GTEST_SKIP() << "this file system has no leases";
    EXPECT_TRUE(open_for_reading((dir / "file").c_str()));
}

TEST(Lease, ThatIsKeptIsWaitedForASecondAlone) {
    const TempDir dir;
    files::write(dir / "file", "x");
    const Holder holder(dir / "file", false);
    if (!holder.holds()) GTEST_SKIP() << "this file system has no leases";
    for (const bool reads : {true, false}) {
        const auto begin = std::chrono::steady_clock::now();
        const std::string path = dir / "file";
        EXPECT_EQ(error_of(reads ? open_for_reading(path.c_str())
                                 : open_for_writing(path.c_str(), kReplace)),
                  EWOULDBLOCK);
        const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - begin;
        EXPECT_GT(waited.count(), 0.9);
        EXPECT_LT(waited.count(),
                  20);  // of the 45 seconds for which the kernel lets the holder keep it
    }
}

}  // namespace
