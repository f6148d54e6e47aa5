// Making maildir folders and user directories. This program defines create_path itself, as a
// process of an appliance may: the library must call the one that it finds in the program.
#include <dlfcn.h>
#include <fcntl.h>
#include <tessaly/mailstore.h>
#include <tessaly/support.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include "testing/files.h"
#include "testing/processes.h"

namespace {

using testing_files::exists;
using testing_files::list;
using testing_files::make_dirs;
using testing_files::make_maildir;
using testing_files::mode_of;
using testing_files::TempDir;
using testing_files::write;

std::vector<std::pair<std::string, mode_t>> calls;  // of create_path

constexpr char kHome[] = "/var/spool/home/site.test/ann~site.test";

class Creation : public testing::Test {
  protected:
    void SetUp() override {
        calls.clear();
        ::umask(0);
    }
    void TearDown() override { EXPECT_EQ(testing_files::open_descriptors(), open_); }
    const size_t open_ = testing_files::open_descriptors();
};

}  // namespace

int create_path(const char* path, mode_t mode) {
    calls.emplace_back(path, mode);
    static const auto real =
        reinterpret_cast<int (*)(const char*, mode_t)>(::dlsym(RTLD_NEXT, "create_path"));
    return real(path, mode);
}

namespace {

TEST_F(Creation, MaildirWithParents) {
    const TempDir dir;
    const std::string path = dir / "a/b/c";
    EXPECT_EQ(tsl_mkdir_maildir(path.c_str()), 0);
    EXPECT_EQ(list(path), (std::vector<std::string>{"cur", "new", "tmp"}));
    for (const char* made : {"a", "a/b", "a/b/c", "a/b/c/cur", "a/b/c/new", "a/b/c/tmp"}) {
        EXPECT_EQ(mode_of(dir / made), 0777u) << made;
    }
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0], std::pair(path, mode_t{0777}));
    EXPECT_EQ(tsl_mkdir_maildir(path.c_str()), 0);
    EXPECT_EQ(calls.size(), 2u);
}

TEST_F(Creation, MaildirTakesTheUmask) {
    const TempDir dir;
    ::umask(027);
    ASSERT_EQ(tsl_mkdir_maildir((dir / "f").c_str()), 0);
    for (const char* made : {"f", "f/cur", "f/new", "f/tmp"}) EXPECT_EQ(mode_of(dir / made), 0750u);
}

TEST_F(Creation, MaildirCompletesWhatIsThere) {
    const TempDir dir;
    make_dirs(dir / "f/new", 0700);
    write(dir / "f/cur", "a file in the way of nothing: it exists");
    EXPECT_EQ(tsl_mkdir_maildir((dir / "f").c_str()), 0);
    EXPECT_EQ(mode_of(dir / "f/new"), 0700u);
    EXPECT_EQ(list(dir / "f"), (std::vector<std::string>{"cur", "new", "tmp"}));
    EXPECT_TRUE(S_ISREG(testing_files::status(dir / "f/cur").st_mode));
}

TEST_F(Creation, MaildirThroughALink) {
    const TempDir dir;
    make_dirs(dir / "real");
    make_dirs(dir / "elsewhere");
    ASSERT_EQ(::symlink("real", (dir / "link").c_str()), 0);
    ASSERT_EQ(::symlink("../elsewhere", (dir / "real/cur").c_str()), 0);
    EXPECT_EQ(tsl_mkdir_maildir((dir / "link").c_str()), 0);
    EXPECT_EQ(tsl_is_maildir_folder((dir / "real").c_str()), 1);
}

// What was made before a failure stays.
TEST_F(Creation, MaildirStopsAtADanglingLink) {
    const struct {
        const char* in_the_way;
        std::vector<std::string> left;
    } rows[] = {
        {"cur", {"cur"}},
        {"new", {"cur", "new"}},
        {"tmp", {"cur", "new", "tmp"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.in_the_way);
        const TempDir dir;
        ASSERT_EQ(::symlink("nowhere", (dir / row.in_the_way).c_str()), 0);
        EXPECT_EQ(tsl_mkdir_maildir(dir.path().c_str()), -1);
        EXPECT_EQ(list(dir.path()), row.left);
        EXPECT_FALSE(exists(dir / "nowhere"));
    }
}

TEST_F(Creation, MaildirFailures) {
    const TempDir dir;
    write(dir / "file", "x");
    EXPECT_EQ(tsl_mkdir_maildir((dir / "file").c_str()), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(tsl_mkdir_maildir((dir / "file/f").c_str()), -1);
    EXPECT_EQ(tsl_mkdir_maildir(""), -1);
    EXPECT_EQ(tsl_mkdir_maildir(nullptr), -1);
}

TEST_F(Creation, MaildirLongPaths) {
    const TempDir dir;
    std::string path = dir.path();
    while (path.size() + 201 < 4080) path += '/' + std::string(200, 'd');
    path += '/' + std::string(4090 - path.size(), 'e');
    ASSERT_EQ(path.size(), 4091u);
    EXPECT_EQ(tsl_mkdir_maildir(path.c_str()), 0);
    EXPECT_EQ(list(path).size(), 3u);
    // With one byte more there is no room for the name "cur" behind it, and nothing is made.
    calls.clear();
    EXPECT_EQ(tsl_mkdir_maildir((path + 'e').c_str()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_FALSE(exists(path + 'e'));
    EXPECT_EQ(tsl_mkdir_maildir(std::string(1 << 20, 'x').c_str()), -1);
    EXPECT_TRUE(calls.empty());
}

TEST_F(Creation, MaildirWithoutPermission) {
    const TempDir dir;
    make_dirs(dir / "closed", 0755);
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod((dir / "closed").c_str(), 0555), 0);
    EXPECT_EQ(testing_processes::run_unprivileged([&] {
                  const bool refused = tsl_mkdir_maildir((dir / "closed").c_str()) == -1 &&
                                       errno == EACCES &&
                                       tsl_mkdir_maildir((dir / "closed/f").c_str()) == -1;
                  return refused ? 0 : 1;
              }),
              0);
    EXPECT_TRUE(list(dir / "closed").empty());
}

// A process that comes second to a directory finds it made. Both succeed.
TEST_F(Creation, MaildirsMadeTogether) {
    const TempDir dir;
    constexpr int kRounds = 400;
    EXPECT_EQ(testing_processes::run_together(4,
                                              [&](int) {
                                                  int failed = 0;
                                                  for (int i = 0; i < kRounds; ++i) {
                                                      const std::string path =
                                                          dir / ("a/" + std::to_string(i) + "/f");
                                                      failed += tsl_mkdir_maildir(path.c_str());
                                                  }
                                                  return failed == 0 ? 0 : 1;
                                              }),
              0);
    for (int i = 0; i < kRounds; ++i) {
        EXPECT_EQ(list(dir / ("a/" + std::to_string(i) + "/f")).size(), 3u);
    }
}

struct UserDir {
    int (*make)(const char*, int);
    const char* path;
};
constexpr UserDir kUserDirs[] = {{create_mail_dir, "/mail"}, {create_pref_dir, "/pref"}};

TEST_F(Creation, UserDirectories) {
    for (const auto& row : kUserDirs) {
        const std::string path = std::string(kHome) + row.path;
        SCOPED_TRACE(path);
        calls.clear();
        // only the low byte of the flag counts
        for (const int no : {0, 0x100, 0x7fffff00}) {
            EXPECT_EQ(row.make("Ann+tag@Site.Test", no), -1);
            EXPECT_FALSE(exists(path));
        }
        EXPECT_TRUE(calls.empty());
        EXPECT_EQ(row.make("Ann+tag@Site.Test", 1), 0);
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(calls[0], std::pair(path, mode_t{0700}));
        EXPECT_EQ(mode_of(path), 0700u);
        EXPECT_EQ(mode_of(kHome), 0700u);
        EXPECT_TRUE(list(path).empty());
        EXPECT_EQ(row.make("ann@site.test", 0), 0);
        EXPECT_EQ(row.make("ann@site.test", 1), 0);
        EXPECT_EQ(calls.size(), 1u);
    }
}

TEST_F(Creation, UserDirectoryWhateverStandsThere) {
    const std::string home = "/var/spool/home/site.test/bob~site.test";
    write(home + "/mail", "a file");
    EXPECT_EQ(create_mail_dir("bob@site.test", 1), 0);
    ASSERT_EQ(::symlink("nowhere", (home + "/pref").c_str()), 0);
    EXPECT_EQ(create_pref_dir("bob@site.test", 0), -1);
    EXPECT_EQ(create_pref_dir("bob@site.test", -1), -2);
}

TEST_F(Creation, UserDirectoryFailures) {
    write("/var/spool/home/file.test", "a file where the domain's directory should be");
    for (const auto& row : kUserDirs) {
        EXPECT_EQ(row.make("ann@file.test", 1), -2);
        EXPECT_EQ(errno, ENOTDIR);
        EXPECT_EQ(row.make("ann@file.test", 0), -1);
        EXPECT_EQ(row.make(nullptr, 1), -1);
        const std::string huge = std::string(1 << 20, 'x') + "@d";
        EXPECT_EQ(row.make(huge.c_str(), 1), -2);
        EXPECT_EQ(row.make(huge.c_str(), 0), -1);
    }
}

TEST_F(Creation, UserDirectoryOfAnEmptyAddress) {
    EXPECT_EQ(create_mail_dir("", 0), -1);
    EXPECT_EQ(create_mail_dir("", 1), 0);
    EXPECT_TRUE(exists("/var/spool/home/mail"));
}

}  // namespace
