// nCfg_debug_zone. The library looks for the block when it is loaded, so each case runs a program
// of its own. The cases run as root, and those named AsAnybody also as another user: only blocks of
// root are trusted.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <tessaly/support.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <cstdio>

#include "base/fd.h"
#include "testing/files.h"
#include "testing/processes.h"

using Tessaly::base::Fd;

namespace {

constexpr char kName[] = "/tessaly-config";
constexpr off_t kFlagOffset = 280944;
constexpr off_t kNeeded = kFlagOffset + 4;

void set_flag(std::int32_t value) {
    const Fd fd(::shm_open(kName, O_RDWR, 0));
    ASSERT_EQ(::pwrite(fd.get(), &value, sizeof value, kFlagOffset), 4);
}

void make_block(off_t size, mode_t mode) {
    ::shm_unlink(kName);
    const Fd fd(::shm_open(kName, O_RDWR | O_CREAT | O_EXCL, 0600));
    ASSERT_EQ(::ftruncate(fd.get(), size), 0);
    if (size >= kNeeded) set_flag(17);
    ASSERT_EQ(::fchmod(fd.get(), mode), 0);
}

// What the program prints, and what it prints after more input.
std::string ask(const std::function<void()>& meanwhile = [] {}) {
    std::signal(SIGPIPE, SIG_IGN);
    int in[2];
    int out[2];
    EXPECT_EQ(::pipe2(in, O_CLOEXEC), 0);
    EXPECT_EQ(::pipe2(out, O_CLOEXEC), 0);
    testing_processes::Child child([&] {
        ::dup2(in[0], 0);
        ::dup2(out[1], 1);
        return ::execl(SUPPORT_CALL, SUPPORT_CALL, "block", nullptr);
    });
    ::close(in[0]);
    ::close(out[1]);
    char text[256];
    std::string said;
    for (ssize_t n; (n = ::read(out[0], text, sizeof text)) > 0;) {
        if (said.empty()) {
            meanwhile();
            static_cast<void>(::write(in[1], "\n", 1) == 1);  // it may be gone
        }
        said.append(text, static_cast<std::size_t>(n));
    }
    EXPECT_EQ(child.wait(), 0);
    ::close(in[1]);
    ::close(out[0]);
    return said;
}

const bool kRoot = ::geteuid() == 0;

}  // namespace

TEST(SharedBlockAsAnybody, IsNoneWithoutTheObject) {
    ::shm_unlink(kName);
    EXPECT_EQ(ask(), "none\n0\n");
}

TEST(SharedBlockAsAnybody, IsTakenIfOnlyRootCanHaveWrittenIt) {
    const struct {
        off_t size;
        mode_t mode;
        bool taken;
    } rows[] = {
        {kNeeded, 0644, true},     {kNeeded, 0600, true},  {kNeeded, 0755, true},
        {kNeeded + 1, 0644, true}, {4000000, 0444, true},  {kNeeded - 1, 0644, false},
        {0, 0644, false},          {kNeeded, 0664, false}, {kNeeded, 0646, false},
        {kNeeded, 0666, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.size << ' ' << std::oct << row.mode);
        make_block(row.size, row.mode);
        EXPECT_EQ(ask(), row.taken && kRoot ? "17\n17\n0\n" : "none\n0\n");
    }
}

TEST(SharedBlock, ShowsWhatIsWrittenLater) {
    make_block(kNeeded, 0644);
    EXPECT_EQ(ask([] { set_flag(-4); }), "17\n-4\n0\n");
}

TEST(SharedBlock, CannotBeWrittenThroughTheMapping) {
    make_block(kNeeded, 0644);
    const int result = testing_processes::Child([] {
                           return ::execl(SUPPORT_CALL, SUPPORT_CALL, "write_block", nullptr);
                       }).wait();
    // 1: how the address sanitizer ends.
    EXPECT_TRUE(result == 128 + SIGSEGV || result == 1) << result;
}

TEST(SharedBlock, IsNotPutOverAProgramsOwnVariable) {
    make_block(kNeeded, 0644);
    testing_processes::Child child([] { return ::execl(OVERRIDE, OVERRIDE, nullptr); });
    EXPECT_EQ(child.wait(), 0);
}

TEST(SharedBlockAsAnybody, MustBeAFileOfItsOwn) {
    make_block(kNeeded, 0644);
    ASSERT_EQ(::rename("/dev/shm/tessaly-config", "/dev/shm/other"), 0);
    ASSERT_EQ(::symlink("other", "/dev/shm/tessaly-config"), 0);
    EXPECT_EQ(ask(), "none\n0\n");
    ::unlink("/dev/shm/tessaly-config");
    ASSERT_EQ(::mkdir("/dev/shm/tessaly-config", 0755), 0);
    EXPECT_EQ(ask(), "none\n0\n");
    ::rmdir("/dev/shm/tessaly-config");
    ASSERT_EQ(::mkfifo("/dev/shm/tessaly-config", 0644), 0);
    testing_processes::Child writer([] {
        Fd(::open("/dev/shm/tessaly-config", O_WRONLY));
        return 0;
    });
    EXPECT_EQ(ask(), "none\n0\n");
    ::unlink("/dev/shm/tessaly-config");
}
