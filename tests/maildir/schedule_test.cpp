// The hidden names of what is scheduled for deletion.
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <string>
#include <vector>

#include "testing/files.h"
#include "testing/processes.h"

namespace {

using testing_files::exists;
using testing_files::list;
using testing_files::make_dirs;
using testing_files::TempDir;
using testing_files::write;
using Names = std::vector<std::string>;

int schedule(const std::string& path, const std::string& dir, const char* tag) {
    return tsm_schedule_for_deletion(path.c_str(), dir.c_str(), tag);
}

TEST(Schedule, CountsInHexadecimal) {
    const TempDir dir;
    make_dirs(dir / "trash-bin");
    const std::string trash = dir / "trash-bin";
    for (int i = 1; i <= 0x21; ++i) {
        write(dir / "Inbox/file", std::to_string(i));
        ASSERT_EQ(schedule(dir / "Inbox", trash, "x"), 0);
        char counter[8];
        std::snprintf(counter, sizeof counter, "%x", static_cast<unsigned>(i));
        EXPECT_EQ(testing_files::read(trash + "/.deleted.x.Inbox." + counter + "/file"),
                  std::to_string(i));
    }
    EXPECT_EQ(list(trash).size(), 0x21u);
    EXPECT_TRUE(exists(trash + "/.deleted.x.Inbox.9"));
    EXPECT_TRUE(exists(trash + "/.deleted.x.Inbox.a"));
    EXPECT_TRUE(exists(trash + "/.deleted.x.Inbox.10"));
    EXPECT_FALSE(exists(dir / "Inbox"));
}

TEST(Schedule, NamesByTagAndBase) {
    const struct {
        const char* path;
        const char* tag;
        const char* name;
    } rows[] = {
        {"Inbox", "x", ".deleted.x.Inbox.1"},     {"Inbox", "", ".deleted..Inbox.1"},
        {"Inbox", nullptr, ".deleted..Inbox.1"},  {"a/b/c", "t.u", ".deleted.t.u.c.1"},
        {".hidden", "x", ".deleted.x..hidden.1"}, {"Inbox/", "x", ".deleted.x..1"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const TempDir dir;
        write(dir / row.path + std::string("/file"), "x");
        ASSERT_EQ(schedule(dir / row.path, dir.path(), row.tag), 0);
        EXPECT_TRUE(exists(dir / row.name + std::string("/file")));
    }
    // without a '/' the whole path is the base
    const TempDir dir;
    ASSERT_EQ(::chdir(dir.path().c_str()), 0);
    write("Inbox/file", "x");
    ASSERT_EQ(schedule("Inbox", ".", "x"), 0);
    EXPECT_EQ(list("."), Names{".deleted.x.Inbox.1"});
    ASSERT_EQ(::chdir("/"), 0);
}

// rename decides which names are taken.
TEST(Schedule, TakenNames) {
    const TempDir dir;
    write(dir / "Inbox/file", "x");
    make_dirs(dir / ".deleted..Inbox.1");  // empty: a directory may take its place
    ASSERT_EQ(schedule(dir / "Inbox", dir.path(), nullptr), 0);
    EXPECT_EQ(list(dir.path()), Names{".deleted..Inbox.1"});
    EXPECT_EQ(list(dir / ".deleted..Inbox.1"), Names{"file"});

    make_dirs(dir / "Inbox");
    write(dir / ".deleted..Inbox.2", "a file");
    EXPECT_EQ(schedule(dir / "Inbox", dir.path(), nullptr), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_TRUE(exists(dir / "Inbox"));

    write(dir / "file", "new");
    write(dir / ".deleted..file.1", "old: a file takes its place");
    EXPECT_EQ(schedule(dir / "file", dir.path(), nullptr), 0);
    EXPECT_EQ(testing_files::read(dir / ".deleted..file.1"), "new");
}

TEST(Schedule, Failures) {
    const TempDir dir;
    make_dirs(dir / "f");
    const std::string path = dir / "f";
    EXPECT_EQ(tsm_schedule_for_deletion(nullptr, "/tmp", "x"), -1);
    EXPECT_EQ(tsm_schedule_for_deletion("", "/tmp", "x"), -1);
    EXPECT_EQ(tsm_schedule_for_deletion(path.c_str(), nullptr, "x"), -1);
    EXPECT_EQ(tsm_schedule_for_deletion(path.c_str(), "", "x"), -1);
    EXPECT_EQ(schedule(dir / "missing", dir.path(), "x"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(schedule(path, dir / "missing", "x"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(schedule(path, path, "x"), -1);  // into itself
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(schedule(path, dir.path(), std::string(300, 't').c_str()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(list(dir.path()), Names{"f"});
}

// A name is tried only if its counter fits into 4095 bytes.
TEST(Schedule, LongPaths) {
    const TempDir dir;
    std::string target = dir.path();
    while (target.size() < 3900) target += "/" + std::string(199, 'd');
    const size_t around = std::string("/.deleted.x.f.1").size();
    target += "/" + std::string(4095 - around - target.size() - 1, 'e');
    make_dirs(target);
    for (const int file : {1, 2}) {
        write(dir / "f/file", std::to_string(file));
        ASSERT_EQ(schedule(dir / "f", target, "x"), 0);
    }
    EXPECT_EQ(list(target), (Names{".deleted.x.f.1", ".deleted.x.f.2"}));
    write(dir / "g/f/file", "x");
    EXPECT_EQ(schedule(dir / "g/f", target, "xxx"), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    // 1 to f are taken and "10" has no room
    for (int i = 3; i < 16; ++i) {
        write(dir / "f/file", "x");
        ASSERT_EQ(schedule(dir / "f", target, "x"), 0);
    }
    EXPECT_EQ(schedule(dir / "g/f", target, "x"), -1);
    EXPECT_EQ(errno, ENOTEMPTY);
    EXPECT_TRUE(exists(dir / "g/f/file"));
    EXPECT_EQ(schedule(std::string(1 << 20, 'p'), dir.path(), "x"), -1);
    EXPECT_EQ(schedule(dir / "g", std::string(1 << 20, 'p'), "x"), -1);
}

// A path with this many bytes, of directories that exist.
std::string long_directory(const std::string& top, size_t length) {
    std::string path = top;
    while (path.size() + 202 < length) path += "/" + std::string(199, 'd');
    const size_t half = (length - path.size()) / 2;
    path += "/" + std::string(half - 1, 'e');
    path += "/" + std::string(length - path.size() - 1, 'e');
    make_dirs(path);
    return path;
}

// A name that fills the buffer before its counter is used without one.
TEST(Schedule, ANameThatLeavesNoRoomForACounter) {
    const TempDir dir;
    const size_t around = std::string("/.deleted.x.f.").size();
    const std::string target = long_directory(dir.path(), 4095 - around);
    write(dir / "f/file", "first");
    EXPECT_EQ(schedule(dir / "f", target, "x"), 0);
    EXPECT_EQ(list(target), Names{".deleted.x.f."});
    // That name is the only one.
    write(dir / "f/file", "second");
    EXPECT_EQ(schedule(dir / "f", target, "x"), -1);
    EXPECT_EQ(errno, ENOTEMPTY);
    EXPECT_TRUE(exists(dir / "f/file"));
    EXPECT_EQ(list(target), Names{".deleted.x.f."});
    // One byte more is too long.
    write(dir / "ff/file", "third");
    EXPECT_EQ(schedule(dir / "ff", target, "x"), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(list(target), Names{".deleted.x.f."});
}

// Each of several processes finds a name of its own.
TEST(Schedule, Together) {
    const TempDir dir;
    constexpr int kEach = 50;
    EXPECT_EQ(testing_processes::run_together(4,
                                              [&](int process) {
                                                  int failed = 0;
                                                  for (int i = 0; i < kEach; ++i) {
                                                      const std::string own =
                                                          dir / (std::to_string(process) + "/f");
                                                      write(own + "/file", "x");
                                                      failed += schedule(own, dir.path(), "x");
                                                  }
                                                  return failed;
                                              }),
              0);
    EXPECT_EQ(list(dir.path()).size(), 4u + 4 * kEach);
}

TEST(DeletedPath, FirstFreeName) {
    const TempDir dir;
    char out[PATH_MAX];
    for (int i = 1; i <= 0x11; ++i) {
        ASSERT_EQ(tsm_get_deleted_path((dir / "Inbox").c_str(), out, sizeof out), 0);
        char counter[8];
        std::snprintf(counter, sizeof counter, "%x", static_cast<unsigned>(i));
        EXPECT_EQ(out, (dir / ".deleted.Inbox.") + counter);
        write(out, "taken");
    }
    ASSERT_EQ(tsm_get_deleted_path((dir / "Other/").c_str(), out, sizeof out), 0);
    EXPECT_EQ(out, dir / "Other/.deleted..1");
    ASSERT_EQ(tsm_get_deleted_path("Inbox", out, sizeof out), 0);
    EXPECT_STREQ(out, ".deleted.Inbox.1");
}

TEST(DeletedPath, Room) {
    char out[64] = "unset";
    EXPECT_EQ(tsm_get_deleted_path("/a/b/Inbox", out, 29), -1);
    EXPECT_EQ(tsm_get_deleted_path("/a/b/Inbox", out, 0), -1);
    EXPECT_EQ(tsm_get_deleted_path("/a/b/Inbox", out, INT_MIN), -1);
    EXPECT_EQ(tsm_get_deleted_path("/a/b/Inbox", nullptr, 64), -1);
    EXPECT_EQ(tsm_get_deleted_path("", out, 64), -1);
    EXPECT_EQ(tsm_get_deleted_path(nullptr, out, 64), -1);
    EXPECT_STREQ(out, "unset");
    EXPECT_EQ(tsm_get_deleted_path("/a/b/Inbox", out, 30), 0);
    EXPECT_STREQ(out, "/a/b/.deleted.Inbox.1");
}

TEST(DeletedName, ByItsBeginning) {
    const struct {
        const char* name;
        int expected;
    } rows[] = {{".deleted.x", 1}, {".deleted.", 1},  {".deleted", 0},          {".Deleted.x", 0},
                {"deleted.x", 0},  {"x.deleted.", 0}, {"/.deleted.x", 0},       {"", 0},
                {".deletedx.", 0}, {nullptr, 0},      {".deleted.x.Inbox.1", 1}};
    for (const auto& row : rows) {
        EXPECT_EQ(tsm_is_deleted_user_path(row.name), row.expected)
            << (row.name == nullptr ? "NULL" : row.name);
    }
}

}  // namespace
