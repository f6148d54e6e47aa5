// The scan cache's one-line form.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <climits>

#include "mailsize/garbage.h"
#include "mailsize/literal.h"
#include "testing/files.h"
#include "testing/processes.h"

namespace files = testing_files;

namespace {

struct PathRow {
    std::string dir;
    int bufsize;
    std::string path;
    int result;
};

TEST(CacheFile, PathIsComposedAndCut) {
    const std::string deep(5000, 'd');
    const PathRow rows[] = {
        {"/a/b", 4096, "/a/b/.ts_cache", 14},
        {"/a/b/", 4096, "/a/b/.ts_cache", 14},
        {"/a/b//", 4096, "/a/b//.ts_cache", 15},
        {"", 4096, "/.ts_cache", 10},
        {"/", 4096, "/.ts_cache", 10},
        {"/a/b/", 5, "/a/b", 4},
        {"/a/b/", 15, "/a/b/.ts_cache", 14},
        {"/a/b/", 14, "/a/b/.ts_cach", 13},
        {"/a/b/", 1, "", 0},
        {deep, 4096, deep.substr(0, 4095), 4095},
    };
    for (const auto& [dir, bufsize, path, result] : rows) {
        const auto size = static_cast<std::size_t>(bufsize);
        std::string buffer(size + 1, '#');
        EXPECT_EQ(tsl_get_maildir_cache_file(dir.c_str(), buffer.data(), bufsize), result) << dir;
        EXPECT_EQ(buffer.c_str(), path);
        EXPECT_EQ(buffer[size - 1], '\0') << "the buffer's end is not the text's";
        EXPECT_EQ(buffer[size], '#') << "written beyond the buffer";
    }
}

TEST(CacheFile, PathOfNothing) {
    char buffer[] = "text";
    EXPECT_EQ(tsl_get_maildir_cache_file("/a", nullptr, 4096), -1);
    EXPECT_EQ(tsl_get_maildir_cache_file(nullptr, buffer, sizeof buffer), -1);
    EXPECT_EQ(tsl_get_maildir_cache_file("/a", buffer, 0), -1);
    EXPECT_EQ(tsl_get_maildir_cache_file("/a", buffer, -1), -1);
    EXPECT_STREQ(buffer, "text");
}

class Cache : public testing::Test {
  protected:
    files::TempDir dir;
    const std::string path = dir / ".ts_cache";
    std::size_t descriptors = files::open_descriptors();
    ~Cache() override { EXPECT_EQ(files::open_descriptors(), descriptors); }

    struct Read {
        int result;
        long mtime;
        unsigned long size;
        bool operator==(const Read&) const = default;
    };
    friend std::ostream& operator<<(std::ostream& out, const Read& r) {
        return out << "{" << r.result << ", " << r.mtime << ", " << r.size << "}";
    }

    Read read() {
        Read r{0, 77, 77};
        r.result = tsl_read_maildir_cache_file(path.c_str(), &r.mtime, &r.size);
        return r;
    }
    // The result of scanf for the file.
    Read read_literally() {
        Read r{0, 77, 77};
        r.result = literal::read_cache(path, r.mtime, r.size) ? 1 : 0;
        return r;
    }
};

TEST_F(Cache, IsWrittenWithoutALineEnd) {
    EXPECT_EQ(tsl_write_maildir_cache_file(path.c_str(), 1700000000, 4096), 1);
    EXPECT_EQ(files::read(path), "mtime=1700000000,size=4096");
    EXPECT_EQ(tsl_write_maildir_cache_file(path.c_str(), -1, ULONG_MAX), 1);
    EXPECT_EQ(files::read(path), "mtime=-1,size=18446744073709551615");
    EXPECT_EQ(read(), (Read{1, -1, ULONG_MAX}));
    EXPECT_EQ(tsl_write_maildir_cache_file(path.c_str(), LONG_MIN, 0), 1);
    EXPECT_EQ(files::read(path), "mtime=-9223372036854775808,size=0");
    EXPECT_EQ(read(), (Read{1, LONG_MIN, 0}));
}

TEST_F(Cache, CannotBeOpened) {
    EXPECT_EQ(tsl_write_maildir_cache_file((path + "/x").c_str(), 1, 1), 0);
    EXPECT_EQ(tsl_write_maildir_cache_file(dir.path().c_str(), 1, 1), 0);
    EXPECT_EQ(tsl_write_maildir_cache_file(nullptr, 1, 1), 0);
    EXPECT_EQ(tsl_write_maildir_cache_file(std::string(5000, 'x').c_str(), 1, 1), 0);
    EXPECT_EQ(read(), (Read{0, 77, 77}));
    EXPECT_EQ(tsl_read_maildir_cache_file(nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(tsl_read_maildir_cache_file(dir.path().c_str(), nullptr, nullptr), 0);
}

TEST_F(Cache, AFullDiskIsReported) {
    EXPECT_EQ(tsl_write_maildir_cache_file("/dev/full", 1, 1), 0);
}

// In each round the disk takes one more digit of the text, but never all of it.
TEST_F(Cache, AFifoInItsPlaceHoldsNobody) {
    const std::string folder = "/var/spool/folder", cache = folder + "/.ts_cache";
    files::make_maildir(folder);
    files::write(folder + "/cur/1.2_3_4.h,#F#S#10#E", "");
    ASSERT_EQ(::mkfifo(cache.c_str(), 0600), 0);
    ::alarm(20);  // a caller that hangs is killed
    const auto look = [&] {
        long mtime = 77;
        unsigned long size = 77;
        EXPECT_EQ(tsl_read_maildir_cache_file(cache.c_str(), &mtime, &size), 0);
        EXPECT_EQ(mtime, 77);
        EXPECT_EQ(size, 77U);
        EXPECT_EQ(tsl_get_mailbox_size(folder.c_str(), nullptr), 0);
        EXPECT_EQ(tsl_get_mailbox_size_actual(folder.c_str(), nullptr, 0), 10);
    };
    EXPECT_EQ(tsl_write_maildir_cache_file(cache.c_str(), 1, 2), 0);
    look();
    const int both_ends = ::open(cache.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(both_ends, 0);
    look();
    ::close(both_ends);
    ::alarm(0);
}

TEST_F(Cache, IsNotCutWithinItsNumbers) {
    const std::string text = "mtime=4242424242,size=60";
    for (std::size_t room = 1; room < text.size(); ++room) {
        files::write(path, "mtime=1,size=2");
        EXPECT_EQ(
            testing_processes::run_with_file_limit(
                room, [&] { return tsl_write_maildir_cache_file(path.c_str(), 4242424242, 60); }),
            0);
        EXPECT_EQ(files::read(path), "") << room;
    }
}

TEST_F(Cache, OutputsMayBeNull) {
    files::write(path, "mtime=5,size=6");
    Read r{0, 77, 77};
    EXPECT_EQ(tsl_read_maildir_cache_file(path.c_str(), nullptr, nullptr), 1);
    EXPECT_EQ(tsl_read_maildir_cache_file(path.c_str(), &r.mtime, nullptr), 1);
    EXPECT_EQ(tsl_read_maildir_cache_file(path.c_str(), nullptr, &r.size), 1);
    EXPECT_EQ(r, (Read{0, 5, 6}));
}

using namespace std::string_literals;

TEST_F(Cache, IsReadAsScanfReadsIt) {
    const std::string blanks(1000, '\n'), zeros(1000, '0');
    const struct {
        std::string text;
        Read expected;
    } rows[] = {
        {"mtime=5,size=6", {1, 5, 6}},
        {"mtime=5,size=6\n", {1, 5, 6}},
        {"mtime=5,size=6junk", {1, 5, 6}},
        {"mtime=5\nsize=6\n", {0, 77, 77}},  // the two-line form
        {"", {0, 77, 77}},
        {" mtime=5,size=6", {0, 77, 77}},
        {"Mtime=5,size=6", {0, 77, 77}},
        {"mtime= \t\n\v\f\r5,size= 6", {1, 5, 6}},
        {"mtime=5 ,size=6", {0, 77, 77}},
        {"mtime=5, size=6", {0, 77, 77}},
        {"mtime=5,size =6", {0, 77, 77}},
        {"mtime=5,size=", {0, 77, 77}},
        {"mtime=,size=6", {0, 77, 77}},
        {"mtime=-,size=6", {0, 77, 77}},
        {"mtime=+5,size=+6", {1, 5, 6}},
        {"mtime=-5,size=-6", {1, -5, static_cast<unsigned long>(-6)}},
        {"mtime=" + blanks + zeros + "5,size=" + blanks + zeros + "6", {1, 5, 6}},
        {"mtime=99999999999999999999,size=99999999999999999999", {1, LONG_MAX, ULONG_MAX}},
        {"mtime=-99999999999999999999,size=-99999999999999999999", {1, LONG_MIN, ULONG_MAX}},
        {"mtime=9223372036854775808,size=18446744073709551616", {1, LONG_MAX, ULONG_MAX}},
        {"mtime=5\0,size=6"s, {0, 77, 77}},
        {"mtime=\0005,size=6"s, {0, 77, 77}},
        {"mtime=5,size=6\0007"s, {1, 5, 6}},
    };
    for (const auto& [text, expected] : rows) {
        files::write(path, text);
        EXPECT_EQ(read(), expected) << text;
        EXPECT_EQ(read_literally(), expected) << text;
    }
}

TEST_F(Cache, RandomTextsAreReadAsScanfReadsThem) {
    constexpr unsigned kSeed = 11;
    testing_garbage::Random random(kSeed);
    int readable = 0;
    for (int i = 0; i < 3000; ++i) {
        std::string text =
            "mtime=" + testing_garbage::blank(random) + testing_garbage::number(random) +
            ",size=" + testing_garbage::blank(random) + testing_garbage::number(random);
        if (random() % 4 == 0) {
            text[testing_garbage::below(random, text.size())] = static_cast<char>(random());
        }
        files::write(path, text);
        const Read expected = read_literally();
        readable += expected.result;
        ASSERT_EQ(read(), expected) << "seed " << kSeed << ", " << text;
    }
    EXPECT_GT(readable, 300);
    EXPECT_LT(readable, 2900);
}

}  // namespace
