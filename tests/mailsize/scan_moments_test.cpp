// Scans of messages that move while the scan reads and renames. The directories and the moves are
// real; this program only chooses the moment, because its functions are called in the place of the
// C library's.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <stdexcept>

#include "testing/files.h"

namespace files = testing_files;

namespace {

// Called before each read of a directory. pass: the number of directories that were read to their
// end before. read: the number of reads of this one.
std::function<void(int pass, int read)> before_read;
int pass = 0, reads = 0;

// Called before each rename, with the number of renames before it.
std::function<void(int renames)> before_rename;
int renames = 0;

}  // namespace

#pragma GCC visibility push(default)
extern "C" ssize_t getdents64(int fd, void* buffer, size_t size) noexcept {
    if (before_read) before_read(pass, reads);
    const long n = ::syscall(SYS_getdents64, fd, buffer, size);
    ++reads;
    if (n == 0) {
        ++pass;
        reads = 0;
    }
    return n;
}

extern "C" int renameat2(int from_dir, const char* from, int to_dir, const char* to,
                         unsigned flags) noexcept {
    if (before_rename) before_rename(renames++);
    return static_cast<int>(::syscall(SYS_renameat2, from_dir, from, to_dir, to, flags));
}
#pragma GCC visibility pop

namespace {

constexpr int kMany = 1000;  // more names of this length than one read returns
constexpr long long kLength = 10;

// A directory on a disk lists names in an order of its own, so that a new name may come after an
// old one. A directory in memory does not.
class Moments : public testing::TestWithParam<const char*> {
  protected:
    std::string folder;

    Moments() : folder(GetParam()) {
        folder += "/XXXXXX";
        if (::mkdtemp(folder.data()) == nullptr) throw std::runtime_error("mkdtemp");
        files::make_maildir(folder);
        for (int i = 0; i < kMany; ++i) {
            files::write(message(i), std::string(kLength, 'x'));
        }
    }
    ~Moments() override { std::filesystem::remove_all(folder); }

    std::string message(int i) const { return folder + "/cur/message-" + std::to_string(i); }
    void tag_all() const {
        for (int i = 0; i < kMany; ++i) {
            ASSERT_EQ(::rename(message(i).c_str(), (message(i) + ",#F#S#10#E").c_str()), 0);
        }
    }
    void change_directory() const {
        files::write(folder + "/cur/x", "");
        ::unlink((folder + "/cur/x").c_str());
    }

    // The sum of a scan during which something happens before the given reads.
    template <class Scan>
    long long sum_with(Scan scan, std::function<void(int pass, int read)> action) {
        pass = reads = 0;
        before_read = std::move(action);
        const long long sum = scan();
        before_read = nullptr;
        return sum;
    }
    long long sum_of_cur(int flags, std::function<void(int, int)> action) {
        return sum_with([&] { return tsl_get_dir_size(folder.c_str(), "cur", flags); },
                        std::move(action));
    }
};

std::string where(const testing::TestParamInfo<const char*>& row) {
    return row.param == std::string("/var/spool") ? "memory" : "disk";
}
INSTANTIATE_TEST_SUITE_P(In, Moments, testing::Values("/var/spool", SCRATCH), where);

TEST_P(Moments, TaggedBetweenTwoReads) {
    const long long sum = sum_of_cur(0, [&](int in_pass, int read) {
        if (in_pass == 0 && read == 1) tag_all();
    });
    EXPECT_EQ(sum, kMany * kLength);
}

// A change while the directory is read makes the scan read it again. A message that is tagged then
// must not count under both names.
class SecondPass : public Moments {
  protected:
    void tagged_between_two_reads(int flags) {
        const long long sum = sum_of_cur(flags, [&](int in_pass, int read) {
            if (in_pass == 0 && read == 1) change_directory();
            if (in_pass == 1 && read == 1) tag_all();
        });
        EXPECT_EQ(pass, 2);
        EXPECT_LE(sum, kMany * kLength);
        EXPECT_GT(sum, 0);
    }
};
INSTANTIATE_TEST_SUITE_P(In, SecondPass, testing::Values("/var/spool", SCRATCH), where);

TEST_P(SecondPass, TaggedBetweenTwoReadsByName) { tagged_between_two_reads(0); }
TEST_P(SecondPass, TaggedBetweenTwoReadsByStat) { tagged_between_two_reads(2); }

// A message on its way through tmp is found there after it was counted in cur.
TEST_P(Moments, MovedToTmpInTheSecondPass) {
    constexpr int kDirectories = 3;
    const long long sum = sum_with(
        [&] { return tsl_get_mailbox_size_actual(folder.c_str(), nullptr, 0); },
        [&](int in_pass, int read) {
            if (in_pass == 0 && read == 1) change_directory();
            if (in_pass == kDirectories + 2 && read == 0) {
                ASSERT_EQ(::rename(message(7).c_str(), (folder + "/tmp/message-7").c_str()), 0);
            }
        });
    EXPECT_EQ(pass, 2 * kDirectories);
    EXPECT_EQ(sum, kMany * kLength);
}

// A directory that does not change is read once.
TEST_P(Moments, AQuietDirectoryIsReadOnce) {
    ::usleep(100'000);
    EXPECT_EQ(sum_of_cur(0, [](int, int) {}), kMany * kLength);
    EXPECT_EQ(pass, 1);
}

// Another process tags tmp, as a scan of the whole folder does, while a message is there on its way
// to its new name.
TEST_P(Moments, TaggedBySomebodyElseInTmp) {
    renames = 0;
    before_rename = [&](int before) {
        if (before != 1) return;
        const std::string waiting = folder + "/tmp/" + files::list(folder + "/tmp").front();
        ASSERT_EQ(::rename(waiting.c_str(), (waiting + ",#F#S#10#E").c_str()), 0);
    };
    EXPECT_EQ(tsl_get_dir_size(folder.c_str(), "cur", 4), kMany * kLength);
    before_rename = nullptr;
    EXPECT_EQ(files::list(folder + "/cur").size(), std::size_t{kMany});
    EXPECT_EQ(files::list(folder + "/tmp"), std::vector<std::string>{});
}

}  // namespace
