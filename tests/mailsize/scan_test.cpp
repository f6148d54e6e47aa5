// Sums of directories and folders, and the cache of the sums.
#include <gtest/gtest.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <algorithm>
#include <climits>

#include "mailsize/garbage.h"
#include "mailsize/literal.h"
#include "testing/files.h"
#include "testing/processes.h"

namespace files = testing_files;

namespace {

constexpr int kStatOnly = 2;

class Scan : public testing::Test {
  protected:
    files::TempDir dir;
    const std::string folder = dir / "Inbox";
    const std::string cache = folder + "/.ts_cache";
    std::size_t descriptors = files::open_descriptors();

    Scan() { files::make_maildir(folder); }
    ~Scan() override { EXPECT_EQ(files::open_descriptors(), descriptors); }

    void message(const std::string& name, std::size_t length) {
        files::write(folder + "/" + name, std::string(length, 'x'));
    }
    long long dir_size(const char* sub, int flags = 0) {
        return tsl_get_dir_size(folder.c_str(), sub, flags);
    }
};

TEST_F(Scan, TakesTheSizeFromTheNameOrTheFile) {
    message("cur/a,#F#S#100#E:2,S", 1);
    message("cur/b", 20);
    message("cur/c,#F#S##E", 3000);  // 0 is a size
    message("cur/d,#F#S#-5#E", 7);   // a negative number is none
    message("cur/e,#F#S#12", 400);   // the field does not end
    message("cur/.hidden", 50000);
    EXPECT_EQ(dir_size("cur"), 100 + 20 + 7 + 400 + 50000);
    EXPECT_EQ(dir_size("cur", kStatOnly), 1 + 20 + 3000 + 7 + 400 + 50000);
    EXPECT_EQ(dir_size("cur", 1 | 8 | 16), dir_size("cur"));
    EXPECT_EQ(dir_size("cur", -1 & ~kStatOnly & ~4), dir_size("cur"));
}

TEST_F(Scan, FindsTheDirectory) {
    message("cur/a", 10);
    message("new/b", 200);
    const std::string cur = folder + "/cur";
    EXPECT_EQ(dir_size("cur"), 10);
    EXPECT_EQ(dir_size("new"), 200);
    EXPECT_EQ(dir_size("tmp"), 0);
    EXPECT_EQ(tsl_get_dir_size(cur.c_str(), nullptr, 0), 10);
    EXPECT_EQ(tsl_get_dir_size(cur.c_str(), "", 0), 10);
    EXPECT_EQ(tsl_get_dir_size((cur + "/").c_str(), "../new", 0), 200);
    EXPECT_EQ(dir_size("none"), 0);
    EXPECT_EQ(dir_size("cur/a"), 0);
    EXPECT_EQ(tsl_get_dir_size(nullptr, "cur", 0), 0);
    EXPECT_EQ(tsl_get_dir_size(std::string(5000, '/').c_str(), "", 0), 0);
}

TEST_F(Scan, NoOtherDirectoryForALongPath) {
    message("cu/a", 10);
    std::string path = folder;
    path.resize(4091, '/');  // and "/cur"
    EXPECT_EQ(dir_size("cu"), 10);
    message("cur/b", 200);
    EXPECT_EQ(tsl_get_dir_size(path.c_str(), "cur", 0), 200);
    EXPECT_EQ(tsl_get_dir_size((path + "/").c_str(), "cur", 0), 0);
}

TEST_F(Scan, CountsOtherEntriesByTheirStat) {
    message("cur/sub/message", 1000);
    message("target", 77);
    ASSERT_EQ(::symlink("../target", (folder + "/cur/link").c_str()), 0);
    ASSERT_EQ(::symlink("nowhere", (folder + "/cur/dangling").c_str()), 0);
    ASSERT_EQ(::symlink("nowhere", (folder + "/cur/dangling,#F#S#5#E").c_str()), 0);
    EXPECT_EQ(dir_size("cur"), files::status(folder + "/cur/sub").st_size + 77 + 5);
    EXPECT_EQ(dir_size("cur", kStatOnly), files::status(folder + "/cur/sub").st_size + 77);
}

TEST_F(Scan, CountsLinksOfOneFileEach) {
    message("cur/a", 10);
    for (const char* name : {"cur/a,#F#S#10#E", "cur/b", "new/a", "tmp/a"}) {
        ASSERT_EQ(::link((folder + "/cur/a").c_str(), (folder + "/" + name).c_str()), 0);
    }
    EXPECT_EQ(dir_size("cur"), 30);
    EXPECT_EQ(tsl_get_mailbox_size_actual(folder.c_str(), nullptr, 0), 50);
}

// A directory under two names counts twice, just after a change and later.
TEST_F(Scan, CountsALinkedDirectoryTwice) {
    message("cur/a", 10);
    message("cur/b,#F#S#200#E", 1);
    ASSERT_EQ(::rmdir((folder + "/new").c_str()), 0);
    ASSERT_EQ(::symlink("cur", (folder + "/new").c_str()), 0);
    const auto size = [this](int flags) {
        ::unlink(cache.c_str());
        return tsl_get_mailbox_size_actual(folder.c_str(), nullptr, flags);
    };
    for (const int moment : {1, 2}) {
        EXPECT_EQ(size(0), 2 * 210) << moment;
        EXPECT_EQ(size(kStatOnly), 2 * 11) << moment;
        ::usleep(100'000);  // longer than the delay of a file system's times
    }
    EXPECT_EQ(size(4), 2 * 210);
    EXPECT_EQ(files::list(folder + "/cur"),
              (std::vector<std::string>{"a,#F#S#10#E", "b,#F#S#200#E"}));
}

TEST_F(Scan, StopsAtTheLargestNumber) {
    message("cur/a,#F#S#9223372036854775807#E", 0);
    message("cur/b,#F#S#9223372036854775807#E", 0);
    message("cur/c", 5);
    EXPECT_EQ(dir_size("cur"), LLONG_MAX);
}

TEST_F(Scan, AnUnreadableDirectoryIsEmpty) {
    message("cur/a", 10);
    ::chmod(dir.path().c_str(), 0755);
    ::chmod((folder + "/cur").c_str(), 0300);
    EXPECT_EQ(testing_processes::run_unprivileged([&] { return dir_size("cur") == 0 ? 0 : 1; }), 0);
}

TEST_F(Scan, OfRandomDirectoriesIsTheLiteralOne) {
    constexpr unsigned kSeed = 7;
    testing_garbage::Random random(kSeed);
    static const char* const kFields[] = {"", ",#F#S#5#E", ",#F#S#12", ",#F#E", ",U5", ":2,S"};
    for (int round = 0; round < 20; ++round) {
        const std::string path = folder + "/" + std::to_string(round);
        // Sometimes enough entries for several reads of the directory.
        for (auto n = random() % (round % 10 == 0 ? 2000 : 60); n > 0; --n) {
            std::string name = std::to_string(random());
            for (int i = 0; i < 3; ++i) {
                name += kFields[testing_garbage::below(random, std::size(kFields))];
            }
            files::write(path + "/" + name, std::string(random() % 50, 'x'));
        }
        for (const int flags : {0, kStatOnly}) {
            EXPECT_EQ(tsl_get_dir_size(path.c_str(), nullptr, flags),
                      literal::dir_size(path, flags))
                << "seed " << kSeed << ", round " << round;
        }
    }
}

// ---- The cache

TEST_F(Scan, CachedSizeIsWhatTheCacheSays) {
    const struct {
        std::string text;
        long long cached;
    } rows[] = {
        {"mtime=100\nsize=500\n", 500},
        {"size=500\nmtime=100\n", 500},
        {"mtime=100,size=500", 500},
        {"mtime=100,size=500\n", 500},
        {"xx mtime=100 yy size=500", 500},
        {"size=500\n", 500},
        {"mtime=0\nsize=500\n", 500},
        {"mtime=100\n", 0},
        {"mtime=100\nsize=0\nsize=7\n", 7},  // goes on while one of them is 0
        {"mtime=100\nsize=6\nsize=7\n", 6},  // and then stops
        {"size=6\nsize=7\nmtime=1\nsize=8\n", 7},
        {"size= \t-12\nmtime=1\n", -12},
        {"size=\n5\nmtime=1\n", 0},  // a line is a line
        {"size=x\nmtime=1\n", 0},
        {"size=x size=5\n", 0},  // the first in a line
        {"Size=5\n", 0},
        {"size=99999999999999999999\nmtime=1\n", LLONG_MAX},
        {std::string("size=5\0size=6\n", 14), 5},
        {std::string("\0size=5\n", 8), 0},
        {std::string(121, ' ') + "size=123\n", 1},  // cut after 127 characters
        {std::string(122, ' ') + "size=123\n", 0},
        {std::string(127, ' ') + "size=123\n", 123},
        {"", 0},
    };
    for (const auto& [text, cached] : rows) {
        files::write(cache, text);
        EXPECT_EQ(tsl_get_mailbox_size(folder.c_str(), nullptr), cached) << text;
    }
    ::unlink(cache.c_str());
    EXPECT_EQ(tsl_get_mailbox_size(folder.c_str(), nullptr), 0);
}

TEST_F(Scan, SizeOfAPlainFile) {
    message("file", 321);
    message("other", 5);
    const std::string file = folder + "/file";
    const struct stat other = files::status(folder + "/other");
    EXPECT_EQ(tsl_get_mailbox_size(file.c_str(), nullptr), 321);
    EXPECT_EQ(tsl_get_mailbox_size_actual(file.c_str(), nullptr, 0), 321);
    EXPECT_EQ(tsl_get_mailbox_size(file.c_str(), &other), 5);  // the caller's record is believed
    EXPECT_EQ(tsl_get_mailbox_size_actual(file.c_str(), &other, 0), 5);
    for (const char* path : {static_cast<const char*>(nullptr), "/none", ""}) {
        EXPECT_EQ(tsl_get_mailbox_size(path, nullptr), 0);
        EXPECT_EQ(tsl_get_mailbox_size_actual(path, nullptr, 0), 0);
    }
    const std::string deep(5000, '/');
    EXPECT_EQ(tsl_get_mailbox_size_actual(deep.c_str(), nullptr, 0), 0);
}

// A caller's record of a folder whose files have too long a path.
TEST_F(Scan, NothingIsReadForAPathThatIsTooLong) {
    const std::string deep = folder + std::string(PATH_MAX - 1 - folder.size(), '/');
    files::write(cache, "mtime=1\nsize=500\n");
    message("cur/a", 10);
    const struct stat st = files::status(folder);
    EXPECT_EQ(tsl_get_mailbox_size(deep.c_str(), &st), 0);
    EXPECT_EQ(tsl_get_mailbox_size_actual(deep.c_str(), &st, 0), 0);
    EXPECT_EQ(files::read(cache), "mtime=1\nsize=500\n");
}

class Actual : public Scan {
  protected:
    // A folder whose cache says 500 and whose messages have 60 bytes.
    Actual() {
        message("cur/a", 10);
        message("new/b,#F#S#20#E", 1);
        message("tmp/c", 30);
        files::write(cache, "");
    }
    struct Times {
        time_t folder, cur, new_, tmp;
    };
    void set_times(const Times& times) {
        files::set_mtime(folder + "/cur", times.cur);
        files::set_mtime(folder + "/new", times.new_);
        files::set_mtime(folder + "/tmp", times.tmp);
        files::set_mtime(folder, times.folder);
    }
    long long actual(int flags = 0) {
        return tsl_get_mailbox_size_actual(folder.c_str(), nullptr, flags);
    }
};

TEST_F(Actual, BelievesAFreshCache) {
    const struct {
        Times times;
        const char* cache;
        long long size;
    } rows[] = {
        {{100, 100, 100, 100}, "mtime=100\nsize=500\n", 500},
        {{1, 2, 3, 4}, "mtime=100\nsize=500\n", 500},
        {{100, 100, 100, 900}, "mtime=100\nsize=500\n", 500},  // tmp does not count
        {{101, 100, 100, 100}, "mtime=100\nsize=500\n", 60},
        {{100, 101, 100, 100}, "mtime=100\nsize=500\n", 60},
        {{100, 100, 101, 100}, "mtime=100\nsize=500\n", 60},
        {{100, 100, 100, 100}, "mtime=100\nsize=0\n", 60},
        {{100, 100, 100, 100}, "mtime=100\nsize=-5\n", -5},
        {{100, 100, 100, 100}, "mtime=100,size=500", 60},  // the other form
        {{100, 100, 100, 100}, "mtime=100,size=500\nsize=7\n", 7},
        {{100, 100, 100, 100}, " mtime=100\nsize=500\n", 60},
        {{100, 100, 100, 100}, "mtime=100\n size=500\n", 60},
        {{100, 100, 100, 100}, "size=500\n", 60},
        {{-5, -5, -5, -5}, "size=500\n", 500},  // no time is the time 0
        {{100, 100, 100, 100}, "", 60},
    };
    for (const auto& [times, text, size] : rows) {
        files::write(cache, text);
        set_times(times);
        EXPECT_EQ(actual(), size) << text;
        if (size == 60) {
            const time_t newest = std::max({times.folder, times.cur, times.new_});
            EXPECT_EQ(files::read(cache), "mtime=" + std::to_string(newest) + "\nsize=60\n");
        } else {
            EXPECT_EQ(files::read(cache), text);
        }
    }
}

TEST_F(Actual, IsFreshFromThenOn) {
    set_times({100, 100, 100, 100});
    EXPECT_EQ(actual(), 60);
    message("tmp/d", 1000);  // changes no time that counts
    EXPECT_EQ(actual(), 60);
    message("cur/e", 1000);
    EXPECT_EQ(actual(), 2060);
    EXPECT_EQ(tsl_get_mailbox_size(folder.c_str(), nullptr), 2060);
}

TEST_F(Actual, TheCallersRecordGivesTheTime) {
    files::write(cache, "mtime=100\nsize=500\n");
    set_times({200, 100, 100, 100});
    struct stat st = files::status(folder);
    st.st_mtime = 100;
    EXPECT_EQ(tsl_get_mailbox_size_actual(folder.c_str(), &st, 0), 500);
    EXPECT_EQ(actual(), 60);
    EXPECT_EQ(files::read(cache), "mtime=200\nsize=60\n");
}

TEST_F(Actual, DirectoriesMayBeMissing) {
    for (const char* sub : {"/cur/a", "/tmp/c"}) ::unlink((folder + sub).c_str());
    for (const char* sub : {"/cur", "/tmp"}) ASSERT_EQ(::rmdir((folder + sub).c_str()), 0);
    files::set_mtime(folder, 100);
    files::set_mtime(folder + "/new", 200);
    EXPECT_EQ(actual(), 20);
    EXPECT_EQ(files::read(cache), "mtime=200\nsize=20\n");
}

TEST_F(Actual, TakesTheFlags) {
    EXPECT_EQ(actual(kStatOnly), 10 + 1 + 30);
    set_times({1LL << 33, 1, 1, 1});
    EXPECT_EQ(actual(4), 60);
    EXPECT_EQ(files::list(folder + "/cur"), std::vector<std::string>{"a,#F#S#10#E"});
    EXPECT_EQ(files::list(folder + "/tmp"), std::vector<std::string>{"c,#F#S#30#E"});
}

TEST_F(Actual, ACacheThatCannotBeWrittenIsNoFailure) {
    ::unlink(cache.c_str());
    files::make_dirs(cache);
    EXPECT_EQ(actual(), 60);
}

// The disk takes "mtime=4242424242\nsiz" or some digits more, but never the whole text.
TEST_F(Actual, ACacheIsNotCutWithinItsNumbers) {
    const std::string text = "mtime=4242424242\nsize=60\n";
    for (std::size_t room = 1; room < text.size(); ++room) {
        files::write(cache, "");
        set_times({4242424242, 1, 1, 1});
        EXPECT_EQ(
            testing_processes::run_with_file_limit(room, [&] { return actual() == 60 ? 0 : 1; }),
            0);
        EXPECT_EQ(files::read(cache), "") << room;
    }
}

}  // namespace
