#include "base/io.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <csignal>

#include "base/fd.h"
#include "testing/files.h"
#include "testing/processes.h"

using namespace Tessaly::base;
using testing_files::TempDir;

namespace {

std::string pattern(std::size_t size) {
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>('a' + i % 23);
    return text;
}

}  // namespace

TEST(Io, WritesAndReadsWholeFilesToTheByte) {
    // Around the size in which files are read.
    for (const std::size_t size : {0U, 1U, 65535U, 65536U, 65537U, 300000U}) {
        SCOPED_TRACE(size);
        const TempDir dir;
        const std::string content = pattern(size);
        const Fd fd(::open((dir / "f").c_str(), O_RDWR | O_CREAT, 0600));
        ASSERT_TRUE(write_all(fd.get(), content));
        EXPECT_TRUE(testing_files::read(dir / "f") == content);
        const off_t offset = ::lseek(fd.get(), 0, SEEK_CUR);
        std::string text = "kept";
        ASSERT_TRUE(read_file(fd.get(), text));
        EXPECT_TRUE(text == "kept" + content);
        EXPECT_EQ(::lseek(fd.get(), 0, SEEK_CUR), offset);
    }
}

TEST(Io, ReadsAtMostTheRoomFromAnOffset) {
    const TempDir dir;
    testing_files::write(dir / "f", "0123456789");
    const Fd fd(::open((dir / "f").c_str(), O_RDONLY));
    char buffer[4];
    EXPECT_EQ(pread_full(fd.get(), buffer, 4, 2), 4);
    EXPECT_EQ(std::string(buffer, 4), "2345");
    EXPECT_EQ(pread_full(fd.get(), buffer, 4, 8), 2);
    EXPECT_EQ(pread_full(fd.get(), buffer, 4, 11), 0);
}

TEST(Io, TellsReadErrors) {
    const TempDir dir;
    const Fd fd(::open(dir.path().c_str(), O_RDONLY));
    char buffer[4];
    EXPECT_EQ(pread_full(fd.get(), buffer, 4, 0), -1);
    EXPECT_EQ(errno, EISDIR);
    std::string text;
    EXPECT_FALSE(read_file(fd.get(), text));
}

TEST(Io, TellsWriteErrorsAfterAShortWrite) {
    const TempDir dir;
    const int code = testing_processes::Child([&] {
                         std::signal(SIGXFSZ, SIG_IGN);
                         const struct rlimit limit = {100, 100};
                         ::setrlimit(RLIMIT_FSIZE, &limit);
                         const Fd fd(::open((dir / "f").c_str(), O_WRONLY | O_CREAT, 0600));
                         return write_all(fd.get(), pattern(150)) ? 1 : errno;
                     }).wait();
    EXPECT_EQ(code, EFBIG);
    EXPECT_EQ(testing_files::read(dir / "f"), pattern(100));
}

TEST(Io, WritesAtAnOffset) {
    const TempDir dir;
    testing_files::write(dir / "f", "0123456789");
    const Fd fd(::open((dir / "f").c_str(), O_WRONLY));
    ASSERT_TRUE(pwrite_all(fd.get(), "abc", 4));
    EXPECT_EQ(testing_files::read(dir / "f"), "0123abc789");
}

TEST(Io, GoesOnAfterShortWritesToAPipe) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const std::string content = pattern(1000000);
    testing_processes::Child writer([&] {
        ::close(ends[0]);
        return write_all(ends[1], content) ? 0 : 1;
    });
    ::close(ends[1]);
    std::string got;
    char buffer[4096];
    for (ssize_t n; (n = ::read(ends[0], buffer, sizeof buffer)) > 0;) {
        got.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(ends[0]);
    EXPECT_EQ(writer.wait(), 0);
    EXPECT_TRUE(got == content);
}

TEST(Fd, ClosesOnceAndKeepsErrno) {
    const std::size_t before = testing_files::open_descriptors();
    {
        Fd a(::open("/dev/null", O_RDONLY));
        Fd b(std::move(a));
        EXPECT_FALSE(a);
        a = std::move(b);
        EXPECT_TRUE(a);
        errno = EXDEV;
        a.reset(::open("/dev/null", O_RDONLY));
        EXPECT_EQ(errno, EXDEV);
        const int plain = a.release();
        EXPECT_FALSE(a);
        Fd c(plain);
    }
    EXPECT_EQ(testing_files::open_descriptors(), before);
}
