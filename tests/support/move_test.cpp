// tsm_movefile, on one file system and across two: /tmp and /var/spool of the sandbox are different
// ones.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <tessaly/support.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <csignal>

#include "base/fd.h"
#include "testing/files.h"
#include "testing/processes.h"

using Tessaly::base::Fd;
using testing_files::exists;
using testing_files::list;
using testing_files::status;
using testing_files::TempDir;
using testing_files::write;

namespace {

const std::string kSpool = "/var/spool/dir";

int move(const std::string& from, const std::string& to) {
    errno = 0;
    return tsm_movefile(from.c_str(), to.c_str());
}

std::string pattern(std::size_t size) {
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i * 7 + i / 256);
    return text;
}

// Each test has a directory on either file system.
class Move : public testing::Test {
  protected:
    void SetUp() override {
        testing_files::make_dirs(kSpool);
        ASSERT_NE(status(kSpool).st_dev, status(dir.path()).st_dev);
        ASSERT_EQ(::chmod(dir.path().c_str(), 0777), 0);
        ASSERT_EQ(::chmod(kSpool.c_str(), 0777), 0);
    }
    const TempDir dir;
};

}  // namespace

TEST_F(Move, OnOneFileSystemKeepsTheFileItself) {
    write(dir / "from", "new");
    write(dir / "to", "old");
    const ino_t inode = status(dir / "from").st_ino;
    EXPECT_EQ(move(dir / "from", dir / "to"), 0);
    EXPECT_EQ(status(dir / "to").st_ino, inode);
    EXPECT_EQ(list(dir.path()), std::vector<std::string>{"to"});
}

TEST_F(Move, OfAFileToItselfChangesNothing) {
    write(dir / "f", "x");
    EXPECT_EQ(move(dir / "f", dir / "f"), 0);
    EXPECT_EQ(testing_files::read(dir / "f"), "x");
}

TEST_F(Move, AcrossCopiesEveryByte) {
    for (const std::size_t size : {0U, 1U, 32767U, 32768U, 32769U, 1000000U}) {
        SCOPED_TRACE(size);
        write(dir / "from", pattern(size));
        const std::size_t before = testing_files::open_descriptors();
        EXPECT_EQ(move(dir / "from", kSpool + "/to"), 0);
        EXPECT_TRUE(testing_files::read(kSpool + "/to") == pattern(size));
        EXPECT_EQ(list(kSpool), std::vector<std::string>{"to"});
        EXPECT_FALSE(exists(dir / "from"));
        EXPECT_EQ(testing_files::open_descriptors(), before);
    }
}

TEST_F(Move, AcrossKeepsModeAndTimes) {
    for (const mode_t mode : {0600U, 0644U, 0400U, 04751U, 02775U}) {
        SCOPED_TRACE(mode);
        ::umask(077);
        write(dir / "from", "x");
        ASSERT_EQ(::chmod((dir / "from").c_str(), mode), 0);
        const struct timespec times[2] = {{1000000000, 123456789}, {1100000000, 987654321}};
        ASSERT_EQ(::utimensat(AT_FDCWD, (dir / "from").c_str(), times, 0), 0);
        ASSERT_EQ(move(dir / "from", kSpool + "/to"), 0);
        const struct stat st = status(kSpool + "/to");
        EXPECT_EQ(st.st_mode & 07777, mode);
        EXPECT_EQ(st.st_mtim.tv_sec, 1100000000);
        EXPECT_EQ(st.st_mtim.tv_nsec, 987654321);
        EXPECT_EQ(st.st_atim.tv_sec, 1000000000);
        EXPECT_EQ(st.st_uid, ::geteuid());
    }
}

TEST_F(Move, AcrossKeepsTheOwnerWherePermitted) {
    write(dir / "from", "x");
    if (::chown((dir / "from").c_str(), 1234, 1235) != 0) GTEST_SKIP() << "needs root";
    ASSERT_EQ(::chmod((dir / "from").c_str(), 06755), 0);
    ASSERT_EQ(move(dir / "from", kSpool + "/to"), 0);
    EXPECT_EQ(status(kSpool + "/to").st_uid, 1234U);
    EXPECT_EQ(status(kSpool + "/to").st_gid, 1235U);
    EXPECT_EQ(testing_files::mode_of(kSpool + "/to"), 06755U);
    // Without that permission the new file belongs to the mover, and its set-user-id bits must not
    // lend others the mover's rights.
    ASSERT_EQ(::chmod((kSpool + "/to").c_str(), 06755), 0);
    const int result = testing_processes::run_unprivileged([&] {
        if (move(kSpool + "/to", dir / "back") != 0) return 1;
        if (status(dir / "back").st_uid != ::geteuid()) return 2;
        return testing_files::mode_of(dir / "back") == 0755 ? 0 : 3;
    });
    EXPECT_EQ(result, 0);
}

TEST_F(Move, AcrossReplacesInOneStep) {
    const std::string texts[] = {pattern(200000), pattern(300000) + "x"};
    write(kSpool + "/to", texts[0]);
    testing_processes::Child reader([&] {
        for (;;) {
            const std::string got = testing_files::read(kSpool + "/to");
            if (got != texts[0] && got != texts[1]) return 1;
        }
    });
    for (int i = 1; i <= 100; ++i) {
        write(dir / "from", texts[i % 2]);
        ASSERT_EQ(move(dir / "from", kSpool + "/to"), 0);
    }
    reader.kill(SIGTERM);
    EXPECT_EQ(reader.wait(), 128 + SIGTERM);
}

TEST_F(Move, LinksAreMovedAndReplacedNotFollowed) {
    write(dir / "target", "target");
    ASSERT_EQ(::symlink("target", (dir / "link").c_str()), 0);
    EXPECT_EQ(move(dir / "link", dir / "moved"), 0);
    char text[16] = "";
    EXPECT_EQ(::readlink((dir / "moved").c_str(), text, sizeof text), 6);

    write(dir / "from", "new");
    ASSERT_EQ(::symlink((dir / "target").c_str(), (kSpool + "/link").c_str()), 0);
    EXPECT_EQ(move(dir / "from", kSpool + "/link"), 0);
    EXPECT_EQ(testing_files::read(kSpool + "/link"), "new");
    EXPECT_EQ(testing_files::read(dir / "target"), "target");
}

TEST_F(Move, OnlyRegularFilesGoAcross) {
    testing_files::make_dirs(dir / "dir");
    ASSERT_EQ(::symlink("nowhere", (dir / "link").c_str()), 0);
    ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
    const Fd socket(::socket(AF_UNIX, SOCK_DGRAM, 0));
    struct sockaddr_un address = {AF_UNIX, {}};
    (dir / "socket").copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    for (const char* name : {"dir", "link", "fifo", "socket"}) {
        EXPECT_EQ(move(dir / name, kSpool + "/to"), -1) << name;
        EXPECT_EQ(errno, EXDEV) << name;
        EXPECT_TRUE(exists(dir / name)) << name;
    }
    EXPECT_EQ(list(kSpool), std::vector<std::string>{});
}

TEST_F(Move, SaysWhyNotAndChangesNothing) {
    write(dir / "from", "from");
    write(dir / "file", "file");
    testing_files::make_dirs(dir / "sub");
    write(kSpool + "/sub/file", "x");
    const struct {
        std::string from;
        std::string to;
        int error;
    } rows[] = {
        {dir / "missing", dir / "to", ENOENT},
        {dir / "missing", kSpool + "/to", ENOENT},
        {"", dir / "to", ENOENT},
        {dir / "from", "", ENOENT},
        {dir / "from", dir / "missing/to", ENOENT},
        {dir / "from", kSpool + "/missing/to", ENOENT},
        {dir / "from", dir / "file/to", ENOTDIR},
        {dir / "from", dir / "sub", EISDIR},
        {dir / "from", kSpool + "/sub", EISDIR},
        {dir / "from", kSpool + "/" + std::string(256, 'n'), ENAMETOOLONG},
        {dir / "from", kSpool + std::string(4090, '/') + "to", ENAMETOOLONG},
        {dir / "from", kSpool + std::string(4070, '/') + "to", ENAMETOOLONG},
    };
    const std::size_t before = testing_files::open_descriptors();
    for (const auto& row : rows) {
        EXPECT_EQ(move(row.from, row.to), -1) << row.from << ' ' << row.to;
        EXPECT_EQ(errno, row.error) << row.from << ' ' << row.to;
    }
    errno = 0;
    EXPECT_EQ(tsm_movefile(nullptr, (dir / "to").c_str()), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(tsm_movefile((dir / "from").c_str(), nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(testing_files::open_descriptors(), before);
    EXPECT_EQ(testing_files::read(dir / "from"), "from");
    EXPECT_EQ(list(dir.path()), (std::vector<std::string>{"file", "from", "sub"}));
    EXPECT_EQ(list(kSpool), std::vector<std::string>{"sub"});
}

TEST_F(Move, WithoutRoomLeavesBothAsTheyWere) {
    write(dir / "from", pattern(100000));
    write(kSpool + "/to", "old");
    const int result = testing_processes::Child([&] {
                           std::signal(SIGXFSZ, SIG_IGN);
                           const struct rlimit limit = {70000, 70000};
                           ::setrlimit(RLIMIT_FSIZE, &limit);
                           return move(dir / "from", kSpool + "/to") == -1 ? errno : 0;
                       }).wait();
    EXPECT_EQ(result, EFBIG);
    EXPECT_EQ(testing_files::read(kSpool + "/to"), "old");
    EXPECT_EQ(list(kSpool), std::vector<std::string>{"to"});
    EXPECT_TRUE(testing_files::read(dir / "from") == pattern(100000));
}

TEST_F(Move, NeedsPermission) {
    write(dir / "secret", "x");
    ASSERT_EQ(::chmod((dir / "secret").c_str(), 0600), 0);
    write(kSpool + "/fixed/file", "x");
    ASSERT_EQ(::chmod((kSpool + "/fixed").c_str(), 0755), 0);
    ASSERT_EQ(::chmod((kSpool + "/fixed/file").c_str(), 0644), 0);
    const int result = testing_processes::run_unprivileged([&] {
        if (::access((dir / "secret").c_str(), R_OK) ==
            0) {  // the file is this process's own, which is still root
            ::chmod((dir / "secret").c_str(), 0);
            ::chmod((kSpool + "/fixed").c_str(), 0555);
        }
        if (move(dir / "secret", kSpool + "/to") != -1 || errno != EACCES) return 1;
        write(dir / "mine", "mine");
        if (move(dir / "mine", kSpool + "/fixed/to") != -1 || errno != EACCES) return 2;
        // If the removal of the original is refused, the copy stays: both names have the bytes.
        if (move(kSpool + "/fixed/file", dir / "copy") != -1 || errno != EACCES) return 3;
        if (testing_files::read(dir / "copy") != "x") return 4;
        return testing_files::read(kSpool + "/fixed/file") == "x" ? 0 : 5;
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(list(kSpool), std::vector<std::string>{"fixed"});
}
