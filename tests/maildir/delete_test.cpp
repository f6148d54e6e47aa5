// Deletion at once: trees, maildir folders, the messages of a folder.
#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "testing/files.h"
#include "testing/processes.h"

namespace {

using testing_files::exists;
using testing_files::list;
using testing_files::make_dirs;
using testing_files::make_maildir;
using testing_files::TempDir;
using testing_files::write;
using Names = std::vector<std::string>;

void make_link(const std::string& target, const std::string& path) {
    ASSERT_EQ(::symlink(target.c_str(), path.c_str()), 0);
}

class Delete : public testing::Test {
  protected:
    void TearDown() override { EXPECT_EQ(testing_files::open_descriptors(), open_); }
    int remove(const std::string& name) { return tsm_delete_path((dir_ / name).c_str()); }

    const size_t open_ = testing_files::open_descriptors();
    const TempDir dir_;
};

// ---- Trees --------------------------------------------------------------------------------------

TEST_F(Delete, AnswersWithAPositiveErrno) {
    write(dir_ / "file", "x");
    write(dir_ / "tree/a/b/c", "x");
    write(dir_ / "tree/.hidden", "x");
    make_dirs(dir_ / "tree/empty");
    make_dirs(dir_ / "alone");
    write(dir_ / "kept", "x");
    make_link("kept", dir_ / "link");
    make_link("nowhere", dir_ / "dangling");
    const struct {
        const char* name;
        int answer;
    } rows[] = {{"missing", ENOENT},   {"file/x", ENOTDIR}, {"file", 0}, {"file", ENOENT},
                {"tree", 0},           {"alone/", 0},       {"link", 0}, {"dangling", 0},
                {"missing/x", ENOENT}, {".", EINVAL}};
    for (const auto& row : rows) EXPECT_EQ(remove(row.name), row.answer) << row.name;
    EXPECT_EQ(list(dir_.path()), Names{"kept"});
    EXPECT_EQ(tsm_delete_path(""), ENOENT);
    EXPECT_EQ(tsm_delete_path(nullptr), EINVAL);
    EXPECT_EQ(tsm_delete_path(std::string(4096, 'x').c_str()), ENAMETOOLONG);
}

TEST_F(Delete, FollowsNoLink) {
    write(dir_ / "outside/kept", "x");
    make_dirs(dir_ / "tree/sub");
    make_link("../outside", dir_ / "tree/link");
    make_link("../../outside", dir_ / "tree/sub/link");
    make_link("outside", dir_ / "top-link");
    EXPECT_EQ(remove("tree"), 0);
    EXPECT_EQ(remove("top-link"), 0);
    EXPECT_EQ(list(dir_.path()), Names{"outside"});
    EXPECT_TRUE(exists(dir_ / "outside/kept"));
}

TEST_F(Delete, ADeepTreeOnASmallStackWithFewDescriptors) {
    constexpr int kLevels = 5000;
    make_dirs(dir_ / "deep");
    int fd = ::open((dir_ / "deep").c_str(), O_PATH | O_CLOEXEC);
    for (int i = 0; i < kLevels; ++i) {
        ASSERT_EQ(::mkdirat(fd, "d", 0777), 0);
        const int next = ::openat(fd, "d", O_PATH | O_CLOEXEC);
        ::close(fd);
        fd = next;
    }
    ::close(fd);
    testing_processes::Child child([&] {
        const rlim_t most = open_ + 10;
        const struct rlimit limit = {most, most};
        if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) return -1;
        int error = -1;
        testing_processes::run_with_stack(512 * 1024, [&] { error = remove("deep"); });
        return error;
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_FALSE(exists(dir_ / "deep"));
}

TEST_F(Delete, WhatMayNotGoStays) {
    ASSERT_EQ(::chmod(dir_.path().c_str(), 0777), 0);
    const int code = testing_processes::run_unprivileged([&] {
        write(dir_ / "tree/a/file", "x");
        write(dir_ / "tree/closed/file", "x");
        write(dir_ / "tree/z/file", "x");
        ::chmod((dir_ / "tree/closed").c_str(), 0555);
        if (remove("tree") != ENOTEMPTY) return 1;
        if (list(dir_ / "tree") != Names{"closed"}) return 2;
        if (remove("tree/closed/file") != EACCES) return 3;
        if (remove("tree/closed") != ENOTEMPTY) return 4;
        ::chmod((dir_ / "tree/closed").c_str(), 0755);
        return remove("tree");
    });
    EXPECT_EQ(code, 0);
}

// Another process exchanges a directory of the tree for a link to a directory outside, all the
// time.
TEST_F(Delete, DirectoriesThatBecomeLinks) {
    for (int i = 0; i < 20; ++i) write(dir_ / ("victim/" + std::to_string(i)), "x");
    const Names victim = list(dir_ / "victim");
    make_link("../victim", dir_ / "link");
    const int outside = ::open(dir_.path().c_str(), O_PATH | O_CLOEXEC);
    testing_processes::Child swapper([&] {
        for (;;) {
            ::renameat2(outside, "link", outside, "tree/sub", RENAME_EXCHANGE);
            // the link or the directory was removed: begin again
            struct stat st;
            if (::fstatat(outside, "link", &st, AT_SYMLINK_NOFOLLOW) != 0 || S_ISDIR(st.st_mode)) {
                ::renameat(outside, "link", outside, ("old" + std::to_string(::rand())).c_str());
                ::symlinkat("../victim", outside, "link");
            }
        }
        return 0;
    });
    int rounds = 0;
    int links = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    for (; std::chrono::steady_clock::now() < end; ++rounds) {
        ::mkdirat(outside, "tree", 0777);
        ::mkdirat(outside, "tree/sub", 0777);
        for (char name = 'a'; name < 'f'; ++name) {
            ::mkdirat(outside, (std::string("tree/sub/") + name).c_str(), 0777);
        }
        struct stat st;
        links +=
            ::fstatat(outside, "tree/sub", &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode);
        while (remove("tree") == ENOTEMPTY) {
        }
        for (char name = 'a'; name < 'f'; ++name) {  // this test made it through the link
            ::unlinkat(outside, (std::string("victim/") + name).c_str(), AT_REMOVEDIR);
        }
    }
    swapper.kill(SIGKILL);
    swapper.wait();
    ::close(outside);
    EXPECT_EQ(list(dir_ / "victim"), victim);
    EXPECT_GT(rounds, 20);
    EXPECT_GT(links, 0);
}

int remove_literally(const std::string& path) {
    if (::remove(path.c_str()) == 0) return 0;
    if (errno != ENOTEMPTY) return errno;
    struct dirent** entries;
    const int count = ::scandir(path.c_str(), &entries, nullptr, nullptr);
    for (int i = count - 1; i >= 0; --i) {
        const std::string name = entries[i]->d_name;
        if (name != "." && name != "..") remove_literally(path + "/" + name);
        std::free(entries[i]);
    }
    if (count >= 0) std::free(entries);
    return ::rmdir(path.c_str()) == 0 ? 0 : errno;
}

// Every entry below a directory. Directories without permissions are opened for that.
void list_all(const std::string& dir, const std::string& prefix, Names& names) {
    ::chmod(dir.c_str(), 0755);
    for (const auto& name : list(dir)) {
        names.push_back(prefix + name);
        struct stat st;
        ASSERT_EQ(::lstat((dir + "/" + name).c_str(), &st), 0);
        if (S_ISDIR(st.st_mode)) list_all(dir + "/" + name, prefix + name + "/", names);
    }
}

// A tree with entries of every kind, in which some directories lack some permissions.
void make_random_tree(std::mt19937 random, const std::string& top) {
    const auto below = [&](size_t n) { return static_cast<size_t>(random() % n); };
    Names dirs = {top};
    make_dirs(top);
    for (int i = 0; i < 25; ++i) {
        const std::string path = dirs[below(dirs.size())] + "/" + std::to_string(i);
        switch (below(4)) {
            case 0:
                write(path, "x");
                break;
            case 1:
                make_link("..", path);
                break;
            default:
                make_dirs(path);
                dirs.push_back(path);
        }
    }
    for (size_t i = dirs.size(); i-- > 1;) {
        constexpr mode_t kClosed[] = {0, 0555, 0333, 0666};
        if (below(12) == 0) ::chmod(dirs[i].c_str(), kClosed[below(std::size(kClosed))]);
    }
}

TEST_F(Delete, AgreesWithTheLiteralRemovalOnRandomTrees) {
    constexpr unsigned kSeed = 2718;
    RecordProperty("seed", kSeed);
    ASSERT_EQ(::chmod(dir_.path().c_str(), 0777), 0);
    const int code = testing_processes::run_unprivileged([&] {
        std::mt19937 random(kSeed);
        int incomplete = 0;
        for (int i = 0; i < 300; ++i, random.discard(1000)) {
            make_random_tree(random, dir_ / "a");
            make_random_tree(random, dir_ / "b");
            const int expected = remove_literally(dir_ / "a");
            if (remove("b") != expected) return 1;
            if (exists(dir_ / "a") != exists(dir_ / "b")) return 2;
            if (expected == 0) continue;
            Names left_by_literal, left;
            list_all(dir_ / "a", "", left_by_literal);
            list_all(dir_ / "b", "", left);
            if (left != left_by_literal) return 3;
            if (remove("a") != 0 || remove("b") != 0) return 4;
            ++incomplete;
        }
        return incomplete > 50 && incomplete < 250 ? 0 : 5;
    });
    EXPECT_EQ(code, 0) << "seed " << kSeed;
}

// ---- Maildir folders ----------------------------------------------------------------------------

class Maildir : public Delete {
  protected:
    // A folder with messages and a directory in each sub-directory, and with other entries.
    std::string make_folder(const std::string& name) {
        const std::string folder = dir_ / name;
        for (const char* sub : {"/cur", "/new", "/tmp"}) {
            write(folder + sub + "/1.message", "x");
            write(folder + sub + "/.2.message", "x");
            write(folder + sub + "/sub/kept", "x");
            make_link("nowhere", folder + sub + "/3.link");
        }
        write(folder + "/.ts_cache", "mtime=1,size=2");
        write(folder + "/.ts_folder_size", "1 1\n");
        write(folder + "/Sub/cur/message", "x");
        return folder;
    }
};

TEST_F(Maildir, DeleteRemovesAll) {
    make_folder("f");
    EXPECT_EQ(tsm_delete_maildir((dir_ / "f").c_str()), 0);
    EXPECT_EQ(list(dir_.path()), Names{});
}

TEST_F(Maildir, DeleteOfOtherObjects) {
    write(dir_ / "file", "x");
    make_dirs(dir_ / "plain/sub");
    EXPECT_EQ(tsm_delete_maildir((dir_ / "file").c_str()), 0);
    EXPECT_EQ(tsm_delete_maildir((dir_ / "plain/").c_str()), 0);
    EXPECT_EQ(list(dir_.path()), Names{});
    make_link("nowhere", dir_ / "dangling");
    for (const std::string& path :
         {std::string(), dir_ / "missing", dir_ / "dangling", std::string(5000, 'x')}) {
        EXPECT_EQ(tsm_delete_maildir(path.c_str()), -1);
        EXPECT_EQ(tsm_clean_maildir(path.c_str()), -1);
    }
    EXPECT_EQ(tsm_delete_maildir(nullptr), -1);
    EXPECT_EQ(tsm_clean_maildir(nullptr), -1);
}

// The link is removed, and so are the messages of the folder that it leads to. The folder stays.
TEST_F(Maildir, DeleteThroughALinkAtTheTop) {
    const std::string folder = make_folder("real");
    ASSERT_EQ(::unlink((folder + "/cur/sub/kept").c_str()), 0);
    ASSERT_EQ(::rmdir((folder + "/cur/sub").c_str()), 0);
    make_link("real", dir_ / "link");
    EXPECT_EQ(tsm_delete_maildir((dir_ / "link").c_str()), 0);
    EXPECT_EQ(list(dir_.path()), Names{"real"});
    EXPECT_EQ(list(folder), (Names{".ts_cache", ".ts_folder_size", "Sub", "new", "tmp"}));
    EXPECT_EQ(list(folder + "/new"), Names{"sub"});
}

// A link in the place of a sub-directory may lead anywhere: what it leads to stays.
TEST_F(Maildir, LinkedSubDirectoriesAreLeft) {
    for (const auto operation : {tsm_delete_maildir, tsm_clean_maildir}) {
        write(dir_ / "elsewhere/message", "x");
        write(dir_ / "elsewhere/sub/kept", "x");
        make_dirs(dir_ / "f/new");
        make_link("../elsewhere", dir_ / "f/cur");
        EXPECT_EQ(operation((dir_ / "f").c_str()), 0);
        EXPECT_EQ(list(dir_ / "elsewhere"), (Names{"message", "sub"}));
        EXPECT_EQ(list(dir_ / "elsewhere/sub"), Names{"kept"});
        EXPECT_EQ(exists(dir_ / "f/cur"), operation == tsm_clean_maildir);
        tsm_delete_path((dir_ / "f").c_str());
    }
}

TEST_F(Maildir, DeleteGivesTheErrnoOfTheRest) {
    ASSERT_EQ(::chmod(dir_.path().c_str(), 0777), 0);
    const int code = testing_processes::run_unprivileged([&] {
        write(dir_ / "f/cur/message", "x");
        write(dir_ / "f/Sub/message", "x");
        ::chmod((dir_ / "f/Sub").c_str(), 0555);
        if (tsm_delete_maildir((dir_ / "f").c_str()) != ENOTEMPTY) return 1;
        if (list(dir_ / "f") != Names{"Sub"}) return 2;
        ::chmod((dir_ / "f/Sub").c_str(), 0755);
        return tsm_delete_maildir((dir_ / "f").c_str());
    });
    EXPECT_EQ(code, 0);
}

// A sub-directory that cannot be opened is left out, even if it is empty. Here the folder cannot be
// listed either, so that the removal of the rest does not find the sub-directory.
TEST_F(Maildir, DeletePassesOverASubDirectoryThatCannotBeOpened) {
    ASSERT_EQ(::chmod(dir_.path().c_str(), 0777), 0);
    const int code = testing_processes::run_unprivileged([&] {
        make_maildir(dir_ / "f");
        ::chmod((dir_ / "f/cur").c_str(), 0);
        ::chmod((dir_ / "f").c_str(), 0300);
        if (tsm_delete_maildir((dir_ / "f").c_str()) != ENOTEMPTY) return 1;
        ::chmod((dir_ / "f").c_str(), 0700);
        if (list(dir_ / "f") != Names{"cur"}) return 2;
        ::chmod((dir_ / "f").c_str(), 0300);
        ::chmod((dir_ / "f/cur").c_str(), 0700);
        return tsm_delete_maildir((dir_ / "f").c_str());
    });
    EXPECT_EQ(code, 0);
}

TEST_F(Maildir, CleanRemovesMessagesAndTheCache) {
    const std::string folder = make_folder("f");
    EXPECT_EQ(tsm_clean_maildir(folder.c_str()), 0);
    EXPECT_EQ(list(folder), (Names{".ts_folder_size", "Sub", "cur", "new", "tmp"}));
    for (const char* sub : {"/cur", "/new", "/tmp"}) {
        EXPECT_EQ(list(folder + sub), Names{"sub"});
        EXPECT_EQ(list(folder + sub + "/sub"), Names{"kept"});
    }
    EXPECT_EQ(list(folder + "/Sub/cur"), Names{"message"});
    EXPECT_EQ(tsm_clean_maildir(folder.c_str()), 0);
}

TEST_F(Maildir, CleanThroughALinkAtTheTop) {
    const std::string folder = make_folder("real");
    make_link("real", dir_ / "link");
    EXPECT_EQ(tsm_clean_maildir((dir_ / "link").c_str()), 0);
    EXPECT_EQ(list(dir_.path()), (Names{"link", "real"}));
    EXPECT_EQ(list(folder), (Names{".ts_folder_size", "Sub", "cur", "new", "tmp"}));
    EXPECT_EQ(list(folder + "/cur"), Names{"sub"});
}

TEST_F(Maildir, CleanOfOtherObjects) {
    write(dir_ / "file", "x");
    EXPECT_EQ(tsm_clean_maildir((dir_ / "file").c_str()), -1);
    EXPECT_TRUE(exists(dir_ / "file"));
    write(dir_ / "plain/file", "x");
    write(dir_ / "plain/cur", "a file");
    EXPECT_EQ(tsm_clean_maildir((dir_ / "plain").c_str()), 0);
    EXPECT_EQ(list(dir_ / "plain"), (Names{"cur", "file"}));
    make_link("plain", dir_ / "link");
    write(dir_ / "plain/.ts_cache", "x");
    EXPECT_EQ(tsm_clean_maildir((dir_ / "link/").c_str()), 0);
    EXPECT_EQ(list(dir_ / "plain"), (Names{"cur", "file"}));
}

// The folder is open while its sub-directories are emptied, so that a link in its place is not
// followed.
TEST_F(Maildir, NeedsTwoDescriptors) {
    const std::string folder = dir_ / "f";
    make_maildir(folder);
    for (const rlim_t free : {1UL, 2UL}) {
        write(folder + "/cur/message", "x");
        testing_processes::Child child([&] {
            const auto first_free = static_cast<rlim_t>(::dup(0));
            ::close(static_cast<int>(first_free));
            const rlimit limit = {first_free + free, first_free + free};
            ::setrlimit(RLIMIT_NOFILE, &limit);
            return tsm_clean_maildir(folder.c_str());
        });
        EXPECT_EQ(child.wait(), 0);
        EXPECT_EQ(list(folder + "/cur").empty(), free == 2);
    }
}

TEST_F(Maildir, CleanSaysNothingOfWhatStays) {
    ASSERT_EQ(::chmod(dir_.path().c_str(), 0777), 0);
    const int code = testing_processes::run_unprivileged([&] {
        write(dir_ / "f/cur/message", "x");
        write(dir_ / "f/new/message", "x");
        ::chmod((dir_ / "f/cur").c_str(), 0555);
        if (tsm_clean_maildir((dir_ / "f").c_str()) != 0) return 1;
        if (!list(dir_ / "f/new").empty() || list(dir_ / "f/cur").empty()) return 2;
        ::chmod((dir_ / "f/cur").c_str(), 0755);
        return 0;
    });
    EXPECT_EQ(code, 0);
}

TEST_F(Maildir, ManyMessages) {
    make_maildir(dir_ / "f");
    for (int i = 0; i < 5000; ++i) write(dir_ / ("f/new/" + std::to_string(i)), "");
    EXPECT_EQ(tsm_clean_maildir((dir_ / "f").c_str()), 0);
    EXPECT_EQ(list(dir_ / "f/new"), Names{});
}

}  // namespace
