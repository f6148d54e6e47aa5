#include "tools/cli/passing.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "testing/processes.h"
#include "tools/cli/descriptors.h"

using namespace Tessaly::tool;
using testing_processes::Child;

namespace {

struct Ends {
    explicit Ends(int type = SOCK_SEQPACKET) {
        int both[2] = {-1, -1};
        EXPECT_EQ(::socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, both), 0);
        one.reset(both[0]);
        other.reset(both[1]);
    }
    Fd one, other;
};

bool is_same_file(int one, int other) {
    struct stat a, b;
    return ::fstat(one, &a) == 0 && ::fstat(other, &b) == 0 && a.st_dev == b.st_dev &&
           a.st_ino == b.st_ino;
}

}  // namespace

TEST(Passing, BytesWithAndWithoutADescriptor) {
    Ends ends;
    char bytes[8];
    Fd got;
    ASSERT_TRUE(send_with(ends.one.get(), "abc", 3, -1));
    EXPECT_EQ(receive_with(ends.other.get(), bytes, sizeof bytes, got), 3);
    EXPECT_EQ(std::string_view(bytes, 3), "abc");
    EXPECT_FALSE(got);
    const Fd file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(send_with(ends.one.get(), "d", 1, file.get()));
    EXPECT_EQ(receive_with(ends.other.get(), bytes, sizeof bytes, got), 1);
    EXPECT_TRUE(is_same_file(got.get(), file.get()));
    EXPECT_EQ(::fcntl(got.get(), F_GETFD), FD_CLOEXEC);
}

TEST(Passing, APacketThatIsTooLong) {
    Ends ends;
    char bytes[2];
    Fd got;
    ASSERT_TRUE(send_with(ends.one.get(), "ab", 2, -1));
    EXPECT_EQ(receive_with(ends.other.get(), bytes, sizeof bytes, got), 2);
    ASSERT_TRUE(send_with(ends.one.get(), "abc", 3, -1));
    EXPECT_EQ(receive_with(ends.other.get(), bytes, sizeof bytes, got), -1);
    EXPECT_EQ(errno, EMSGSIZE);
}

TEST(Passing, TheOtherProcessIsGone) {
    Ends ends;
    ends.other.reset();
    char bytes[2];
    Fd got;
    EXPECT_FALSE(send_with(ends.one.get(), "a", 1, -1));
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(receive_with(ends.one.get(), bytes, sizeof bytes, got), 0);
}

TEST(Passing, WholeMessagesOverAStream) {
    Ends ends(SOCK_STREAM);
    char bytes[3];
    Fd got;
    Child sender([&] {
        return send_with(ends.one.get(), "a", 1, -1) && send_with(ends.one.get(), "bc", 2, -1) ? 0
                                                                                               : 1;
    });
    EXPECT_EQ(receive_with(ends.other.get(), bytes, sizeof bytes, got, MSG_WAITALL), 3);
    EXPECT_EQ(std::string_view(bytes, 3), "abc");
    EXPECT_EQ(sender.wait(), 0);
}

TEST(Passing, NoRoomForTheDescriptor) {
    Ends ends;
    const Fd file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(send_with(ends.one.get(), "a", 1, file.get()));
    Child receiver([&] {
        const rlimit none = {0, 0};
        ::setrlimit(RLIMIT_NOFILE, &none);
        char bytes[2];
        Fd got;
        const ssize_t n = receive_with(ends.other.get(), bytes, sizeof bytes, got);
        return n == -1 && errno == EMFILE && !got ? 0 : 1;
    });
    EXPECT_EQ(receiver.wait(), 0);
}
