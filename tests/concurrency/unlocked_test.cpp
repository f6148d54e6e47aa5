// The files without a binding lock, which are the scan cache and the quota flags. The last writer
// wins, but a reader never reads a text that was not written.
#include <gtest/gtest.h>
#include <tessaly/MailUserId.h>
#include <tessaly/mailstore.h>

#include <algorithm>
#include <atomic>
#include <cstdio>

#include "mailsize/shared.h"
#include "testing/files.h"
#include "testing/processes.h"

namespace files = testing_files;
using testing_processes::Child;
using testing_processes::run_together;

namespace {

constexpr int kProcesses = 8, kSteps = 8000;
constexpr char kUser[] = "ann@site.test";
const std::string kHome = "/var/spool/home/site.test/ann~site.test";
const std::string kFolder = kHome + "/mail/Inbox";
const std::string kCache = kFolder + "/.ts_cache";

// Numbers of very different lengths, so that a mixture of two of them is not one of them.
constexpr long kNumbers[kProcesses] = {1, 22, 333333333, 4444, 2147483647, 66666666, 77777, 8};

bool is_one_of_them(long number) {
    return std::find(std::begin(kNumbers), std::end(kNumbers), number) != std::end(kNumbers);
}

// Runs step(process) 8,000 times in each of 8 processes, and look() beside them. look() is false
// for a text that was not written.
template <class Step, class Look>
void run_beside(Step step, Look look) {
    const Shared<std::atomic<bool>> stop;
    Child reader([&] {
        for (; !stop->load();) {
            if (!look()) return 1;
        }
        return 0;
    });
    EXPECT_EQ(run_together(kProcesses,
                           [&](int process) {
                               for (int i = 0; i < kSteps; ++i) step(process);
                               return 0;
                           }),
              0);
    stop->store(true);
    EXPECT_EQ(reader.wait(), 0);
    EXPECT_TRUE(look());
}

TEST(Unlocked, TheCacheInOneLine) {
    files::make_maildir(kFolder);
    run_beside(
        [](int process) {
            const long number = kNumbers[process];
            tsl_write_maildir_cache_file(kCache.c_str(), number,
                                         static_cast<unsigned long>(number));
        },
        [] {
            long mtime = 1;
            unsigned long size = 1;
            if (tsl_read_maildir_cache_file(kCache.c_str(), &mtime, &size) == 0) return true;
            return static_cast<unsigned long>(mtime) == size && is_one_of_them(mtime);
        });
    EXPECT_EQ(files::list(kFolder), (std::vector<std::string>{".ts_cache", "cur", "new", "tmp"}));
    // Only the last writer's text stays.
    long mtime = 0;
    ASSERT_EQ(tsl_read_maildir_cache_file(kCache.c_str(), &mtime, nullptr), 1);
    const std::string number = std::to_string(mtime);
    EXPECT_EQ(files::read(kCache), "mtime=" + number + ",size=" + number);
}

// Folders are scanned while their messages come and go.
TEST(Unlocked, TheCacheInTwoLines) {
    files::make_maildir(kFolder);
    const std::string message = kFolder + "/cur/1.2_3_4.h,#F#S#";
    run_beside(
        [&](int process) {
            const std::string number = std::to_string(kNumbers[process]);
            const std::string path = message + number + "#E";
            if (process < 2) {
                files::write(path, "");
                std::remove(path.c_str());
            }
            tsl_get_mailbox_size_actual(kFolder.c_str(), nullptr, 0);
        },
        [] {
            const long long size = tsl_get_mailbox_size(kFolder.c_str(), nullptr);
            return size == 0 || size == kNumbers[0] || size == kNumbers[1] ||
                   size == kNumbers[0] + kNumbers[1];
        });
}

// A reader may see the work of two setters. When they are done, the number is one of theirs, and
// whole.
TEST(Unlocked, QuotaFlags) {
    files::make_dirs(kHome);
    run_beside(
        [](int process) {
            const int number = static_cast<int>(kNumbers[process]);
            tsl_set_quota_warning(kUser, number);
            tsl_set_quota_exceeded(kUser, number);
            if (process == 0) Tessaly::TSMailUserId(kUser).quota_exceeded(false);
            if (process == 1) Tessaly::TSMailUserId(kUser).quota_exceeded(true);
        },
        [] { return tsl_get_quota_warning(kUser) >= 0 && tsl_get_quota_exceeded(kUser) >= 0; });
    EXPECT_TRUE(is_one_of_them(tsl_get_quota_warning(kUser)));
    const int exceeded = tsl_get_quota_exceeded(kUser);
    EXPECT_TRUE(exceeded == 0 || is_one_of_them(exceeded)) << exceeded;
    for (const std::string& name : files::list(kHome)) {
        EXPECT_TRUE(name == "quota_warning_flag" || name == "quota_exceeded_flag") << name;
    }
}

}  // namespace
