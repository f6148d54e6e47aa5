#include "base/tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <memory>

#include "base/fd.h"
#include "quota/failing_new.h"
#include "testing/files.h"
#include "testing/processes.h"

using namespace Tessaly::base;
using testing_files::exists;
using testing_files::list;
using testing_files::make_dirs;
using testing_files::TempDir;
using testing_files::write;
using testing_processes::Child;

namespace {

constexpr std::size_t kSmallStack = 512 * 1024;
constexpr int kDeep = 5000;

int empty(const std::string& path) {
    const Fd dir(::open(path.c_str(), O_RDONLY | O_DIRECTORY));
    return dir ? empty_directory(dir.get()) : -1;
}

int remove_tree(const std::string& path) { return remove_tree_at(AT_FDCWD, path.c_str()); }

// Makes a chain of directories named "d", each with a file and an empty directory beside it, and
// returns the deepest one.
Fd make_chain(const std::string& top, int depth) {
    Fd at(::open(top.c_str(), O_RDONLY | O_DIRECTORY));
    for (int i = 0; i < depth; ++i) {
        ::mkdirat(at.get(), "d", 0777);
        ::mkdirat(at.get(), "e", 0777);
        Fd(::openat(at.get(), "f", O_WRONLY | O_CREAT, 0666));
        at = Fd(::openat(at.get(), "d", O_RDONLY | O_DIRECTORY));
        EXPECT_TRUE(at);
    }
    return at;
}

// A tree with an entry of every kind.
void make_one_of_each(const std::string& top) {
    write(top + "/file", "x");
    write(top + "/.hidden", "x");
    write(top + "/" + std::string(255, 'n'), "");
    write(top + "/\xff\n\t ", "");
    write(top + "/sub/sub/file", "x");
    make_dirs(top + "/empty");
    make_dirs(top + "/...");
    make_dirs(top + "/" + std::string(255, 'd') + "/in");
    ASSERT_EQ(::symlink("file", (top + "/link").c_str()), 0);
    ASSERT_EQ(::symlink("sub", (top + "/dirlink").c_str()), 0);
    ASSERT_EQ(::symlink("nowhere", (top + "/sub/dangling").c_str()), 0);
    ASSERT_EQ(::mkfifo((top + "/fifo").c_str(), 0600), 0);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    (top + "/socket").copy(address.sun_path, sizeof address.sun_path - 1);
    const Fd socket(::socket(AF_UNIX, SOCK_DGRAM, 0));
    ASSERT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
}

}  // namespace

TEST(EmptyDirectory, RemovesOneOfEachAndKeepsTheDirectory) {
    const TempDir dir;
    make_one_of_each(dir.path());
    const ino_t inode = testing_files::status(dir.path()).st_ino;
    const std::size_t before = testing_files::open_descriptors();
    EXPECT_EQ(empty(dir.path()), 0);
    EXPECT_EQ(list(dir.path()), std::vector<std::string>{});
    EXPECT_EQ(testing_files::status(dir.path()).st_ino, inode);
    EXPECT_EQ(testing_files::open_descriptors(), before);
}

TEST(EmptyDirectory, StartsAtTheBeginningWhereverTheDescriptorStands) {
    const TempDir dir;
    write(dir / "a", "");
    const Fd fd(::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY));
    char buffer[4096];
    ASSERT_GT(getdents64(fd.get(), buffer, sizeof buffer), 0);
    EXPECT_EQ(empty_directory(fd.get()), 0);
    EXPECT_FALSE(exists(dir / "a"));
}

TEST(EmptyDirectory, AnswersForWhatIsNoDirectory) {
    EXPECT_EQ(empty_directory(-1), EBADF);
    const Fd file(::open("/dev/null", O_RDONLY));
    EXPECT_EQ(empty_directory(file.get()), ENOTDIR);
}

TEST(EmptyDirectory, FollowsNoLink) {
    const TempDir dir;
    write(dir / "victim/kept", "x");
    write(dir / "victim/sub/kept", "x");
    make_dirs(dir / "top/sub");
    for (const char* name : {"top/link", "top/sub/link"}) {
        ASSERT_EQ(::symlink((dir / "victim").c_str(), (dir / name).c_str()), 0);
    }
    EXPECT_EQ(empty(dir / "top"), 0);
    EXPECT_EQ(list(dir / "top"), std::vector<std::string>{});
    EXPECT_TRUE(exists(dir / "victim/kept"));
    EXPECT_TRUE(exists(dir / "victim/sub/kept"));
}

TEST(RemoveTreeAt, AnswersAsTheLastAttemptDid) {
    const struct {
        const char* name;
        int answer;
        bool stays;
    } rows[] = {
        {"file", 0, false},          {"fifo", 0, false},           {"link", 0, false},
        {"dirlink", 0, false},       {"sub/dangling", 0, false},   {"empty", 0, false},
        {"sub", 0, false},           {"sub/", 0, false},           {"sub/sub", 0, false},
        {"missing", ENOENT, false},  {"missing/x", ENOENT, false}, {"file/x", ENOTDIR, false},
        {"dirlink/", ENOTDIR, true}, {"", ENOENT, true},           {".", EINVAL, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const TempDir dir;
        make_one_of_each(dir.path());
        const Fd fd(::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY));
        EXPECT_EQ(remove_tree_at(fd.get(), row.name), row.answer);
        EXPECT_EQ(exists(dir / row.name), row.stays);
        EXPECT_TRUE(exists(dir / ".hidden"));
    }
}

TEST(RemoveTreeAt, OfALinkLeavesItsTarget) {
    const TempDir dir;
    write(dir / "sub/file", "x");
    ASSERT_EQ(::symlink("sub", (dir / "link").c_str()), 0);
    EXPECT_EQ(remove_tree(dir / "link"), 0);
    EXPECT_FALSE(exists(dir / "link"));
    EXPECT_TRUE(exists(dir / "sub/file"));
}

// Deep trees, with few descriptors, on a small stack.

// Limits this process to so many more descriptors.
void leave_descriptors(std::size_t count) {
    std::vector<Fd> opened;
    for (std::size_t i = 0; i < count; ++i) opened.emplace_back(::open("/dev/null", O_RDONLY));
    const auto limit = static_cast<rlim_t>(opened.back().get()) + 1;
    const struct rlimit limits = {limit, limit};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limits), 0);
}

TEST(DeepTree, GoesOnASmallStack) {
    const TempDir dir;
    make_dirs(dir / "top");
    make_chain(dir / "top", kDeep);
    const std::size_t before = testing_files::open_descriptors();
    testing_processes::run_with_stack(kSmallStack, [&] { EXPECT_EQ(remove_tree(dir / "top"), 0); });
    EXPECT_FALSE(exists(dir / "top"));
    EXPECT_EQ(testing_files::open_descriptors(), before);
}

TEST(DeepTree, GoesWithFewDescriptors) {
    const TempDir dir;
    // The top and two more; then more.
    for (const std::size_t count : {3U, 4U, 20U}) {
        make_dirs(dir / "top");
        make_chain(dir / "top", 1000);
        const int error = Child([&] {
                              leave_descriptors(count);
                              return remove_tree(dir / "top");
                          }).wait();
        EXPECT_EQ(error, 0) << count;
        EXPECT_FALSE(exists(dir / "top")) << count;
    }
    make_dirs(dir / "top");
    make_chain(dir / "top", 3);
    const int error = Child([&] {
                          leave_descriptors(2);
                          return remove_tree(dir / "top");
                      }).wait();
    EXPECT_EQ(error, ENOTEMPTY);
    EXPECT_TRUE(exists(dir / "top/d/d/d"));
    EXPECT_FALSE(exists(dir / "top/f"));
}

// A removal that was stopped at the bottom of a chain of directories.
class StoppedBelow {
  public:
    StoppedBelow(const std::string& top, int depth) {
        make_dirs(top);
        const Fd bottom = make_chain(top, depth);
        for (int i = 0; i < 20000; ++i) {
            Fd(::openat(bottom.get(), std::to_string(i).c_str(), O_WRONLY | O_CREAT, 0666));
        }
        const Fd events(::inotify_init1(IN_CLOEXEC));
        const std::string bottom_path = "/proc/self/fd/" + std::to_string(bottom.get());
        EXPECT_GE(::inotify_add_watch(events.get(), bottom_path.c_str(), IN_DELETE), 0);
        child_ = std::make_unique<Child>([&] { return remove_tree(top); });
        char event[4096];
        EXPECT_GT(::read(events.get(), event, sizeof event), 0);
        child_->kill(SIGSTOP);
        int status;
        EXPECT_EQ(::waitpid(child_->pid(), &status, WUNTRACED), child_->pid());
        EXPECT_TRUE(WIFSTOPPED(status));
        EXPECT_FALSE(list(bottom_path).empty()) << "stopped too late";
        descriptors_ = list("/proc/" + std::to_string(child_->pid()) + "/fd").size();
    }
    // The number of its open descriptors.
    std::size_t descriptors() const { return descriptors_; }
    int go_on() {
        child_->kill(SIGCONT);
        return child_->wait();
    }

  private:
    std::unique_ptr<Child> child_;
    std::size_t descriptors_;
};

TEST(DeepTree, TakesAboutThirtyDescriptors) {
    const TempDir dir;
    const std::size_t before = testing_files::open_descriptors();
    StoppedBelow removal(dir / "top", 100);
    EXPECT_GE(removal.descriptors(), before + 30);
    EXPECT_LE(removal.descriptors(), before + 36);
    EXPECT_EQ(removal.go_on(), 0);
    EXPECT_FALSE(exists(dir / "top"));
}

// A directory is moved out of the tree while the work is far below it. Its new neighbours are not
// touched, and the rest of the tree is removed.
TEST(DeepTree, ABranchThatIsMovedAwayIsLeft) {
    const TempDir dir;
    write(dir / "outside/kept", "x");
    write(dir / "outside/d/kept", "x");
    write(dir / "outside/e/kept", "x");
    StoppedBelow removal(dir / "top", 100);
    ASSERT_EQ(::rename((dir / "top/d/d").c_str(), (dir / "outside/moved").c_str()), 0);
    EXPECT_EQ(removal.go_on(), ENOTEMPTY);
    EXPECT_TRUE(exists(dir / "outside/kept"));
    EXPECT_TRUE(exists(dir / "outside/d/kept"));
    EXPECT_TRUE(exists(dir / "outside/e/kept"));
    EXPECT_EQ(list(dir / "outside/moved"), std::vector<std::string>{});
    EXPECT_EQ(list(dir / "top"), std::vector<std::string>{"d"});
}

// What cannot be removed.

TEST(Refused, KeepsOnlyWhatMustStay) {
    const TempDir dir;
    ASSERT_EQ(::chmod(dir.path().c_str(), 0777), 0);
    const int code = testing_processes::run_unprivileged([&] {
        const std::string top = dir / "top";
        write(top + "/a/file", "x");
        write(top + "/unreadable/file", "x");
        make_dirs(top + "/unreadable_empty");
        write(top + "/unwritable/file", "x");
        write(top + "/unwritable/sub/file", "x");
        write(top + "/z/z/file", "x");
        ::chmod((top + "/unreadable").c_str(), 0);
        ::chmod((top + "/unreadable_empty").c_str(), 0);
        ::chmod((top + "/unwritable").c_str(), 0555);
        if (empty(top) != EACCES) return 1;
        if (list(top) != std::vector<std::string>{"unreadable", "unwritable"}) return 2;
        if (list(top + "/unwritable") != std::vector<std::string>{"file", "sub"}) return 3;
        // a directory that may not be removed is not emptied either
        if (list(top + "/unwritable/sub") != std::vector<std::string>{"file"}) return 4;
        if (remove_tree(top) != ENOTEMPTY) return 5;
        if (remove_tree(top + "/unwritable/file") != EACCES) return 6;
        if (remove_tree(top + "/unreadable") != ENOTEMPTY) return 7;
        ::chmod((top + "/unreadable").c_str(), 0700);
        ::chmod((top + "/unwritable").c_str(), 0700);
        return remove_tree(top);
    });
    EXPECT_EQ(code, 0);
}

TEST(Refused, MakesADeepTreeStayAsAChain) {
    const TempDir dir;
    ASSERT_EQ(::chmod(dir.path().c_str(), 0777), 0);
    const int code = testing_processes::run_unprivileged([&] {
        make_dirs(dir / "top");
        const Fd bottom = make_chain(dir / "top", 1000);
        ::fchmod(bottom.get(), 0555);
        Fd(::openat(bottom.get(), "f", O_WRONLY | O_CREAT, 0666));
        ::fchmod(bottom.get(), 0777);
        ::mkdirat(bottom.get(), "stuck", 0777);
        const Fd stuck(::openat(bottom.get(), "stuck", O_RDONLY | O_DIRECTORY));
        Fd(::openat(stuck.get(), "file", O_WRONLY | O_CREAT, 0666));
        ::fchmod(stuck.get(), 0555);
        if (empty(dir / "top") != EACCES) return 1;
        for (std::string at = dir / "top"; at.size() < 1000; at += "/d") {
            if (list(at) != std::vector<std::string>{"d"}) return 2;
        }
        ::fchmod(stuck.get(), 0777);
        return remove_tree(dir / "top");
    });
    EXPECT_EQ(code, 0);
}

TEST(Refused, WithoutMemoryItSaysSoAndLeavesNoDescriptor) {
    const TempDir dir;
    const std::string top = dir / "top";
    const std::size_t before = testing_files::open_descriptors();
    int n = 0;
    for (bool fired = true; fired; ++n) {
        make_dirs(top + "/name that is longer than a string holds without memory");
        make_chain(top, 10);
        int error = 0;
        {
            const quota_test::FailingNew no_memory(n);
            error = remove_tree(top);
            fired = no_memory.fired();
        }
        EXPECT_EQ(error, fired ? ENOMEM : 0) << n;
        EXPECT_EQ(testing_files::open_descriptors(), before) << n;
    }
    EXPECT_GT(n, 5);
    EXPECT_FALSE(exists(top));
}

// Other processes at work in the same tree.

TEST(Race, TwoRemoversOfOneTree) {
    const TempDir dir;
    for (int round = 0; round < 20; ++round) {
        make_dirs(dir / "top");
        make_chain(dir / "top", 60);
        const int failed = testing_processes::run_together(3, [&](int) {
            const int error = remove_tree(dir / "top");
            return error == 0 || error == ENOENT ? 0 : error;
        });
        EXPECT_EQ(failed, 0);
        EXPECT_FALSE(exists(dir / "top"));
    }
}

TEST(Race, FilesThatComeWhileItWorks) {
    const TempDir dir;
    for (int round = 0; round < 10; ++round) {
        for (const char* sub : {"top/cur", "top/new", "top/tmp"}) make_dirs(dir / sub);
        Child writer([&] {
            for (int i = 0; i < 3000; ++i) {
                const std::string name = dir / "top/tmp/" + std::to_string(i);
                const Fd file(::open(name.c_str(), O_WRONLY | O_CREAT, 0666));
                if (!file) return errno == ENOENT ? 0 : 1;  // the directory was removed under it
            }
            return 2;  // the removal never catches up
        });
        int error = ENOTEMPTY;
        while (error == ENOTEMPTY) error = remove_tree(dir / "top");
        EXPECT_EQ(error, 0);
        EXPECT_NE(writer.wait(), 1);
        EXPECT_EQ(list(dir.path()), std::vector<std::string>{});
    }
}

// Makes a directory with a subdirectory, and a file in each of them, unless the name is a link by
// now.
void fill(int at, const char* name) {
    constexpr int kDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW;
    ::mkdirat(at, name, 0777);
    const Fd dir(::openat(at, name, kDirectory));
    ::mkdirat(dir.get(), "sub", 0777);
    const Fd sub(::openat(dir.get(), "sub", kDirectory));
    Fd(::openat(dir.get(), "f", O_WRONLY | O_CREAT, 0666));
    Fd(::openat(sub.get(), "f", O_WRONLY | O_CREAT, 0666));
}

// Another process swaps directories of the tree for links to a directory outside, all the time.
TEST(Race, DirectoriesSwappedForLinksToAVictim) {
    const TempDir dir;
    for (int i = 0; i < 20; ++i) write(dir / "victim/sub/" + std::to_string(i), "x");
    for (int i = 0; i < 20; ++i) write(dir / "victim/" + std::to_string(i), "x");
    const auto victim = list(dir / "victim");
    const auto victim_sub = list(dir / "victim/sub");
    make_dirs(dir / "top");
    const Fd top(::open((dir / "top").c_str(), O_RDONLY | O_DIRECTORY));
    const Fd outside(::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY));

    Child swapper([&] {
        for (long i = 0;; i = (i + 1) % 3) {
            const char name[] = {static_cast<char>('a' + i), '\0'};
            ::symlinkat((dir / "victim").c_str(), outside.get(), "link");
            ::renameat2(top.get(), name, outside.get(), "link", RENAME_EXCHANGE);
            ::renameat2(top.get(), name, outside.get(), "link", RENAME_EXCHANGE);
            // The link may have been removed meanwhile. A directory is in its place then.
            char target[8];
            if (::readlinkat(outside.get(), "link", target, sizeof target) < 0) {
                ::renameat(outside.get(), "link", outside.get(), std::to_string(::rand()).c_str());
            }
        }
        return 0;
    });
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
    int rounds = 0;
    for (; std::chrono::steady_clock::now() < end; ++rounds) {
        for (const char* name : {"a", "b", "c"}) fill(top.get(), name);
        empty_directory(top.get());
    }
    swapper.kill(SIGKILL);
    swapper.wait();
    EXPECT_EQ(list(dir / "victim"), victim);
    EXPECT_EQ(list(dir / "victim/sub"), victim_sub);
    EXPECT_GT(rounds, 50);
}
