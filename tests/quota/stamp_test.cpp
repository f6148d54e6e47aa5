// The stamp that keeps notices a day apart. The cases also run on a disk, where the times of files
// may follow other rules than in memory. Files that an earlier run left there are removed first.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <tessaly/MailUserId.h>
#include <unistd.h>

#include <climits>
#include <ctime>
#include <filesystem>
#include <iostream>

#include "testing/files.h"
#include "testing/processes.h"

using namespace testing_files;
using namespace testing_processes;
using Tessaly::TSMailUserId;

namespace {

constexpr time_t kDay = 86400;
constexpr int kSlack = 60;  // seconds a busy machine may take between two lines

class Stamp : public testing::Test {
  protected:
    Stamp() {
        std::filesystem::remove_all(home);
        make_dirs(home);
    }

    // The answer for a stamp of this age. If the clock ticks between the two calls, they are made
    // again.
    bool due_at_age(time_t age) {
        for (;;) {
            const time_t now = std::time(nullptr);
            write(stamp, "");
            set_mtime(stamp, now - age);
            const bool due = id.alert_notification();
            if (std::time(nullptr) == now) return due;
        }
    }
    bool is_fresh() const { return std::time(nullptr) - status(stamp).st_mtime <= kSlack; }

    // Each case has its own user, because the cases on a disk share the spool.
    const std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
    const TSMailUserId id{name + "@site.test"};
    const std::string home = id.homepath();
    const std::string stamp = home + "/.alert_notification";
};

}  // namespace

TEST_F(Stamp, WithoutOneANoticeIsDue) {
    EXPECT_TRUE(id.alert_notification());
    EXPECT_EQ(list(home), std::vector<std::string>{".alert_notification"});
    EXPECT_EQ(read(stamp), "");
    EXPECT_TRUE(is_fresh());
    EXPECT_FALSE(id.alert_notification());
}

TEST_F(Stamp, IsMadeByTheUmask) {
    const mode_t before = ::umask(027);
    id.alert_notification();
    ::umask(before);
    EXPECT_EQ(mode_of(stamp), 0640U);
}

TEST_F(Stamp, CountsByItsAge) {
    const std::pair<time_t, bool> rows[] = {
        {0, false},         {1, false},          {kDay - 1, false}, {kDay, false},
        {kDay + 1, true},   {kDay + 2, true},    {10 * kDay, true}, {-1, false},
        {-kDay - 1, false}, {-10 * kDay, false},
    };
    for (const auto& [age, due] : rows) {
        EXPECT_EQ(due_at_age(age), due) << age;
        const time_t now = std::time(nullptr);
        if (due) {
            EXPECT_TRUE(is_fresh()) << age;
            EXPECT_FALSE(id.alert_notification()) << age;
        } else {
            EXPECT_NEAR(static_cast<double>(now - status(stamp).st_mtime), static_cast<double>(age),
                        kSlack);
        }
    }
}

TEST_F(Stamp, AnEmptyOneIsRenewed) {
    write(stamp, "");
    set_mtime(stamp, 1000);
    const ino_t inode = status(stamp).st_ino;
    EXPECT_TRUE(id.alert_notification());
    EXPECT_TRUE(is_fresh());
    EXPECT_EQ(status(stamp).st_ino, inode);
    struct statfs fs;
    ASSERT_EQ(::statfs(home.c_str(), &fs), 0);
    std::cout << "file system type " << std::hex << fs.f_type << '\n';
}

TEST_F(Stamp, LosesItsContentOnlyWhenItIsRenewed) {
    write(stamp, "text");
    EXPECT_FALSE(id.alert_notification());
    EXPECT_EQ(read(stamp), "text");
    set_mtime(stamp, 1000);
    EXPECT_TRUE(id.alert_notification());
    EXPECT_EQ(read(stamp), "");
}

TEST_F(Stamp, TheEndsOfTimeAreNoTrap) {
    write(stamp, "");
    set_mtime(stamp, LONG_MAX);
    EXPECT_FALSE(id.alert_notification());
    set_mtime(stamp, LONG_MIN);
    EXPECT_TRUE(id.alert_notification());
}

TEST_F(Stamp, ThatCannotBeMadeLeavesEachNoticeDue) {
    std::filesystem::remove_all(home);
    EXPECT_TRUE(id.alert_notification());
    EXPECT_TRUE(id.alert_notification());
    EXPECT_FALSE(exists(home));
}

TEST_F(Stamp, ThatCannotBeRenewedLeavesEachNoticeDue) {
    write(stamp, "");
    set_mtime(stamp, 1000);
    ::chmod(stamp.c_str(), 0444);
    EXPECT_EQ(run_unprivileged(
                  [&] { return id.alert_notification() && id.alert_notification() ? 0 : 1; }),
              0);
    EXPECT_EQ(status(stamp).st_mtime, 1000);
}

TEST_F(Stamp, BelongsToTheMailboxType) {
    const std::string path = "/var/spool/given-" + name;
    make_dirs(path);
    EXPECT_TRUE(TSMailUserId(Tessaly::MAILBOX_GIVEN_PATH, path).alert_notification());
    EXPECT_TRUE(exists(path + "/.alert_notification"));
    std::filesystem::remove_all(path);
}

TEST_F(Stamp, RefusesTheDirectType) {
    try {
        TSMailUserId(Tessaly::MAILBOX_DIRECT, "x").alert_notification();
        FAIL();
    } catch (const Tessaly::Exception& e) {
        EXPECT_EQ(e.message(), " TSDirectMailUserId::alert_notification() - Not Implimented");
        EXPECT_EQ(e.code(), 4);
        EXPECT_STREQ(e.file(), "MailUserId");
        EXPECT_EQ(e.line(), 297);
    }
}

TEST_F(Stamp, LeavesNoDescriptorOpen) {
    const std::size_t before = open_descriptors();
    id.alert_notification();
    id.alert_notification();
    set_mtime(stamp, 1000);
    id.alert_notification();
    EXPECT_EQ(open_descriptors(), before);
}
