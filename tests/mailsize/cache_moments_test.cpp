// Two writers of one scan cache at the same time: the last one wins. The files are real; this
// program only chooses the moment, because its functions are called in the place of the C
// library's.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <functional>
#include <utility>

#include "testing/files.h"

namespace files = testing_files;

namespace {

// Each is called once: before the next write, and after it.
std::function<void()> before_write, behind_write;

template <class Write>
ssize_t write_between(Write write) {
    if (const auto before = std::exchange(before_write, nullptr)) before();
    const auto behind = std::exchange(behind_write, nullptr);
    const ssize_t written = write();
    if (behind) behind();
    return written;
}

}  // namespace

#pragma GCC visibility push(default)
extern "C" ssize_t write(int fd, const void* text, size_t size) {
    return write_between([=] { return ::syscall(SYS_write, fd, text, size); });
}
extern "C" ssize_t pwrite(int fd, const void* text, size_t size, off_t offset) {
    return write_between([=] { return ::syscall(SYS_pwrite64, fd, text, size, offset); });
}
#pragma GCC visibility pop

namespace {

const std::string kFolder = "/var/spool/folder";
const std::string kCache = kFolder + "/.ts_cache";
const std::string kMessage = kFolder + "/cur/1.2_3_4.h,#F#S#";

void write_one_line(long mtime, unsigned long size) {
    EXPECT_EQ(tsl_write_maildir_cache_file(kCache.c_str(), mtime, size), 1);
}

constexpr unsigned long kShort = 5, kLong = 1234567890123;

std::string one_line(unsigned long size) { return "mtime=1,size=" + std::to_string(size); }

TEST(CacheMoments, WhoWritesLastWins) {
    files::make_maildir(kFolder);
    for (const auto& [first, last] : {std::pair(kShort, kLong), std::pair(kLong, kShort)}) {
        // The first has emptied the file. Then the second comes and finishes before the first goes
        // on.
        before_write = [size = first] { write_one_line(1, size); };
        write_one_line(1, last);
        EXPECT_EQ(files::read(kCache), one_line(last));
        // The second comes when the first has just written. If the second's text is the longer one,
        // the first cannot tell whether its own text lies over the rest of it, and writes again.
        behind_write = [size = last] { write_one_line(1, size); };
        write_one_line(1, first);
        EXPECT_EQ(files::read(kCache), one_line(kShort));
    }
}

TEST(CacheMoments, AScanWinsAsWell) {
    files::make_maildir(kFolder);
    files::write(kMessage + "7#E", "");
    for (const unsigned long other : {kShort, kLong}) {
        ::unlink(kCache.c_str());
        before_write = [other] { write_one_line(1, other); };
        EXPECT_EQ(tsl_get_mailbox_size_actual(kFolder.c_str(), nullptr, 0), 7);
        EXPECT_TRUE(files::read(kCache).ends_with("\nsize=7\n")) << files::read(kCache);
        EXPECT_EQ(files::read(kCache).find(','), std::string::npos);
    }
    ::unlink(kCache.c_str());
    behind_write = [] { write_one_line(1, kShort); };
    EXPECT_EQ(tsl_get_mailbox_size_actual(kFolder.c_str(), nullptr, 0), 7);
    EXPECT_EQ(files::read(kCache), one_line(kShort));
}

}  // namespace
