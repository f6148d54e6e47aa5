// create_path, tsm_clean_dir, trim_right.
#include <fcntl.h>
#include <sys/stat.h>
#include <tessaly/support.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "testing/files.h"
#include "testing/processes.h"

using testing_files::exists;
using testing_files::list;
using testing_files::mode_of;
using testing_files::TempDir;

namespace {

std::string repeated(const std::string& text, int times) {
    std::string result;
    for (int i = 0; i < times; ++i) result += text;
    return result;
}

}  // namespace

TEST(CreatePath, MakesWhatIsMissing) {
    for (const char* path : {"a", "a/b/c/d/e", "a/b/", "a///b//c", "a//", "a/./b", "a/../b", "./a",
                             "a/.", "\xff/\n"}) {
        SCOPED_TRACE(path);
        const TempDir dir;
        EXPECT_EQ(create_path((dir / path).c_str(), 0777), 0);
        EXPECT_TRUE(S_ISDIR(testing_files::status(dir / path).st_mode));
        EXPECT_EQ(create_path((dir / path).c_str(), 0777), 0);
        ASSERT_EQ(::chdir(dir.path().c_str()), 0);
        EXPECT_EQ(create_path((std::string("sub/") + path).c_str(), 0777), 0);
        EXPECT_TRUE(exists(dir / "sub/" + path));
    }
}

TEST(CreatePath, OfRootAndTheWorkingDirectoryIsDone) {
    for (const char* path : {"/", "//", ".", "./", "..", "/tmp"}) {
        EXPECT_EQ(create_path(path, 0777), 0) << path;
    }
}

TEST(CreatePath, GivesAllTheModeLessTheUmask) {
    const struct {
        mode_t mode;
        mode_t mask;
        mode_t got;
    } rows[] = {{0777, 0, 0777}, {0777, 022, 0755}, {0700, 022, 0700}, {0770, 077, 0700}};
    for (const auto& row : rows) {
        const TempDir dir;
        ::umask(row.mask);
        ASSERT_EQ(create_path((dir / "a/b/c").c_str(), row.mode), 0);
        for (const char* made : {"a", "a/b", "a/b/c"}) EXPECT_EQ(mode_of(dir / made), row.got);
    }
}

TEST(CreatePath, LeavesExistingDirectoriesAsTheyAre) {
    const TempDir dir;
    testing_files::write(dir / "a/kept", "x");
    ASSERT_EQ(::chmod((dir / "a").c_str(), 0711), 0);
    ASSERT_EQ(::symlink("a", (dir / "link").c_str()), 0);
    EXPECT_EQ(create_path((dir / "a/b").c_str(), 0700), 0);
    EXPECT_EQ(create_path((dir / "link").c_str(), 0700), 0);
    EXPECT_EQ(create_path((dir / "link/c/d").c_str(), 0700), 0);
    EXPECT_EQ(mode_of(dir / "a"), 0711U);
    EXPECT_EQ(list(dir / "a"), (std::vector<std::string>{"b", "c", "kept"}));
}

TEST(CreatePath, SaysWhyNot) {
    const TempDir dir;
    testing_files::write(dir / "file", "x");
    ASSERT_EQ(::symlink("nowhere", (dir / "dangling").c_str()), 0);
    ASSERT_EQ(::symlink("loop", (dir / "loop").c_str()), 0);
    ASSERT_EQ(::symlink("file", (dir / "filelink").c_str()), 0);
    const struct {
        std::string path;
        int error;
    } rows[] = {
        {"", ENOENT},
        {dir / "file", ENOTDIR},
        {dir / "file/", ENOTDIR},
        {dir / "file/a", ENOTDIR},
        {dir / "file/a/b", ENOTDIR},
        {dir / "filelink", ENOTDIR},
        {dir / "filelink/a", ENOTDIR},
        {dir / "dangling", ENOTDIR},
        {dir / "dangling/a", ENOTDIR},
        {dir / "loop", ELOOP},
        {dir / "made/" + std::string(256, 'n') + "/x", ENAMETOOLONG},
        {"/tmp" + repeated("/x", 2100), ENAMETOOLONG},
    };
    for (const auto& row : rows) {
        errno = 0;
        EXPECT_EQ(create_path(row.path.c_str(), 0777), -1) << row.path;
        EXPECT_EQ(errno, row.error) << row.path;
    }
    errno = 0;
    EXPECT_EQ(create_path(nullptr, 0777), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(exists("/tmp/x"));
    EXPECT_EQ(testing_files::read(dir / "file"), "x");
}

TEST(CreatePath, PathsUpToTheLimit) {
    const TempDir dir;
    ASSERT_EQ(::chdir(dir.path().c_str()), 0);
    const std::string longest = repeated("1234567/", 511) + "1234567";  // 4095 bytes
    ASSERT_EQ(longest.size(), 4095U);
    EXPECT_EQ(create_path(longest.c_str(), 0777), 0);
    EXPECT_TRUE(exists(longest));
    errno = 0;
    EXPECT_EQ(create_path(("x" + longest).c_str(), 0777), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_FALSE(exists("x1234567"));
}

TEST(CreatePath, NeedsPermission) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can be somebody else";
    const TempDir dir;
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    testing_files::make_dirs(dir / "there");
    const int result = testing_processes::run_unprivileged([&] {
        if (create_path((dir / "there").c_str(), 0777) != 0) return 1;
        return create_path((dir / "there/a/b").c_str(), 0777) == -1 && errno == EACCES ? 0 : 2;
    });
    EXPECT_EQ(result, 0);
}

TEST(CreatePath, ManyProcessesMakeTheSamePath) {
    const TempDir dir;
    const int failed = testing_processes::run_together(6, [&](int) {
        for (int i = 0; i < 200; ++i) {
            const std::string path = dir / std::to_string(i) + "/b/c/d/e/f";
            if (create_path(path.c_str(), 0700) != 0) return 1;
            if (!exists(path)) return 2;
        }
        return 0;
    });
    EXPECT_EQ(failed, 0);
}

TEST(CleanDir, EmptiesAndKeepsTheDirectory) {
    for (const int flags : {0, 1, -1}) {
        const TempDir dir;
        testing_files::make_dirs(dir / "top", 0751);
        testing_files::write(dir / "top/a/b/c", "x");
        testing_files::write(dir / "top/.hidden", "x");
        testing_files::make_dirs(dir / "top/empty");
        ASSERT_EQ(::mkfifo((dir / "top/fifo").c_str(), 0600), 0);
        const ino_t inode = testing_files::status(dir / "top").st_ino;
        const mode_t mode = mode_of(dir / "top");
        const std::size_t before = testing_files::open_descriptors();
        EXPECT_EQ(tsm_clean_dir((dir / "top").c_str(), flags), 0);
        EXPECT_EQ(list(dir / "top"), std::vector<std::string>{});
        EXPECT_EQ(testing_files::status(dir / "top").st_ino, inode);
        EXPECT_EQ(mode_of(dir / "top"), mode);
        EXPECT_EQ(tsm_clean_dir((dir / "top").c_str(), flags), 0);
        EXPECT_EQ(testing_files::open_descriptors(), before);
    }
}

TEST(CleanDir, FollowsALinkAtTheTopOnly) {
    const TempDir dir;
    testing_files::write(dir / "victim/kept", "x");
    testing_files::write(dir / "top/sub/file", "x");
    ASSERT_EQ(::symlink("../victim", (dir / "top/link").c_str()), 0);
    ASSERT_EQ(::symlink("../../victim", (dir / "top/sub/link").c_str()), 0);
    ASSERT_EQ(::symlink("../victim/kept", (dir / "top/filelink").c_str()), 0);
    ASSERT_EQ(::symlink("top", (dir / "toplink").c_str()), 0);
    EXPECT_EQ(tsm_clean_dir((dir / "toplink").c_str(), 0), 0);
    EXPECT_EQ(list(dir / "top"), std::vector<std::string>{});
    EXPECT_EQ(list(dir.path()), (std::vector<std::string>{"top", "toplink", "victim"}));
    EXPECT_TRUE(exists(dir / "victim/kept"));
}

TEST(CleanDir, SaysWhyNot) {
    const TempDir dir;
    testing_files::write(dir / "file", "x");
    const struct {
        std::string path;
        int error;
    } rows[] = {{"", ENOENT},
                {dir / "missing", ENOENT},
                {dir / "file", ENOTDIR},
                {std::string(4096, '/'), ENAMETOOLONG}};
    for (const auto& row : rows) {
        errno = 0;
        EXPECT_EQ(tsm_clean_dir(row.path.c_str(), 0), -1) << row.path;
        EXPECT_EQ(errno, row.error) << row.path;
    }
    errno = 0;
    EXPECT_EQ(tsm_clean_dir(nullptr, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(exists(dir / "file"));
}

TEST(CleanDir, AnswersTheFirstErrorAndRemovesTheRest) {
    const TempDir dir;
    ASSERT_EQ(::chmod(dir.path().c_str(), 0777), 0);
    const int result = testing_processes::run_unprivileged([&] {
        testing_files::write(dir / "top/a", "x");
        testing_files::write(dir / "top/unreadable/file", "x");
        testing_files::write(dir / "top/z/z", "x");
        ::chmod((dir / "top/unreadable").c_str(), 0);
        errno = 0;
        if (tsm_clean_dir((dir / "top").c_str(), 0) != -1 || errno != EACCES) return 1;
        if (list(dir / "top") != std::vector<std::string>{"unreadable"}) return 2;
        errno = 0;
        if (tsm_clean_dir((dir / "top/unreadable").c_str(), 0) != -1 || errno != EACCES) return 3;
        ::chmod((dir / "top/unreadable").c_str(), 0700);
        return tsm_clean_dir((dir / "top").c_str(), 0);
    });
    EXPECT_EQ(result, 0);
}

TEST(CleanDir, AnyDepthOnASmallStack) {
    const TempDir dir;
    ASSERT_EQ(::chdir(dir.path().c_str()), 0);
    for (int i = 0; i < 5000; ++i) {
        ASSERT_EQ(::mkdir("d", 0777), 0);
        ASSERT_EQ(::chdir("d"), 0);
    }
    ASSERT_EQ(::chdir("/"), 0);
    testing_processes::run_with_stack(512 * 1024,
                                      [&] { EXPECT_EQ(tsm_clean_dir(dir.path().c_str(), 0), 0); });
    EXPECT_EQ(list(dir.path()), std::vector<std::string>{});
}

TEST(TrimRight, RemovesWhiteSpaceOfTheCLocale) {
    const struct {
        std::string text;
        const char* got;
    } rows[] = {
        {"", ""},           {" ", ""},      {" \t\n\v\f\r", ""},
        {"a", "a"},         {"a ", "a"},    {" a b \r\n", " a b"},
        {"a\n\n", "a"},     {"\na", "\na"}, {"a\xa0", "a\xa0"},
        {"a\x85", "a\x85"}, {"a\b", "a\b"}, {"a\x1f ", "a\x1f"},
    };
    for (auto [text, got] : rows) {
        EXPECT_EQ(trim_right(text.data()), text.data());
        EXPECT_STREQ(text.c_str(), got);
    }
    EXPECT_EQ(trim_right(nullptr), nullptr);
    std::string large(1 << 20, ' ');
    large.front() = 'x';
    EXPECT_STREQ(trim_right(large.data()), "x");
}
