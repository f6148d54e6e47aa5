// open_and_lock_file and close_and_unlock_file, with real processes.
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <tessaly/support.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <map>
#include <memory>

#include "base/fd.h"
#include "testing/files.h"
#include "testing/processes.h"

using Tessaly::base::Fd;
using testing_files::TempDir;
using testing_processes::Child;

namespace {

constexpr const char* kModes[] = {"r", "w", "a+"};
bool is_shared(const std::string& mode) { return mode == "r"; }

// Whether a lock of this kind could be had without waiting.
bool is_free_for(const std::string& path, int lock) {
    const Fd fd(::open(path.c_str(), O_RDWR));
    return ::flock(fd.get(), lock | LOCK_NB) == 0;
}

// A process that opens and locks a file when it is told to, and then runs the body with the stream.
// It is made before the test takes a lock, because a child shares the locks of its parent.
class Opener {
  public:
    Opener(
        const std::string& path, const char* mode,
        const std::function<int(FILE*)>& body = [](FILE*) { return 0; }) {
        EXPECT_EQ(::pipe2(go_, O_CLOEXEC), 0);
        EXPECT_EQ(::pipe2(got_, O_CLOEXEC), 0);
        child_ = std::make_unique<Child>([&, this] {
            char byte;
            if (::read(go_[0], &byte, 1) != 1) return 1;
            FILE* stream = open_and_lock_file(path.c_str(), mode);
            if (stream == nullptr || ::write(got_[1], &byte, 1) != 1) return 1;
            return body(stream);
        });
        ::close(go_[0]);
        ::close(got_[1]);
    }
    ~Opener() {
        ::close(go_[1]);
        ::close(got_[0]);
    }

    void start() { EXPECT_EQ(::write(go_[1], "x", 1), 1); }
    // Whether it gets its stream, at once or within the time.
    bool has_it(int milliseconds) {
        struct pollfd ready = {got_[0], POLLIN, 0};
        return ::poll(&ready, 1, milliseconds) == 1 && (ready.revents & POLLIN) != 0;
    }
    Child& child() { return *child_; }

  private:
    int go_[2];
    int got_[2];
    std::unique_ptr<Child> child_;
};

constexpr int kSoon = 5000;  // the time for what must happen
constexpr int kAWhile = 50;  // the time for what must not happen

}  // namespace

TEST(Lock, RefusesOtherModesAndNull) {
    const TempDir dir;
    const std::string path = dir / "f";
    for (const char* mode : {"", "R", "rw", "r+", "w+", "a", "rb", "wb", "a+b", "w ", "x", "re"}) {
        errno = 0;
        EXPECT_EQ(open_and_lock_file(path.c_str(), mode), nullptr) << mode;
        EXPECT_EQ(errno, EINVAL) << mode;
    }
    errno = 0;
    EXPECT_EQ(open_and_lock_file(path.c_str(), nullptr), nullptr);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(open_and_lock_file(nullptr, "w"), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(testing_files::exists(path));
}

TEST(Lock, CloseOfNullIsRefused) {
    errno = 0;
    EXPECT_EQ(close_and_unlock_file(nullptr), EOF);
    EXPECT_EQ(errno, EINVAL);
}

TEST(Lock, ModesCreateReadAndWriteAsTheyShould) {
    const struct {
        const char* mode;
        bool creates;
        const char* content_at_open;  // of a file that held "old\n"
        const char* after_writing;    // "new\n" to it
    } rows[] = {
        {"r", false, "old\n", "old\n"},
        {"w", true, "", "new\n"},
        {"a+", true, "old\n", "old\nnew\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.mode);
        const TempDir dir;
        const std::string path = dir / "f";
        ::umask(027);
        FILE* stream = open_and_lock_file(path.c_str(), row.mode);
        EXPECT_EQ(stream != nullptr, row.creates);
        if (stream != nullptr) {
            EXPECT_EQ(testing_files::mode_of(path), 0640U);
            EXPECT_EQ(close_and_unlock_file(stream), 0);
        } else {
            EXPECT_EQ(errno, ENOENT);
        }
        testing_files::write(path, "old\n");
        stream = open_and_lock_file(path.c_str(), row.mode);
        ASSERT_NE(stream, nullptr);
        EXPECT_EQ(testing_files::read(path), row.content_at_open);
        std::fputs("new\n", stream);
        close_and_unlock_file(stream);
        EXPECT_EQ(testing_files::read(path), row.after_writing);
    }
}

TEST(Lock, AppendReadsFromTheBeginningAndWritesAtTheEnd) {
    const TempDir dir;
    testing_files::write(dir / "f", "one\ntwo\n");
    FILE* stream = open_and_lock_file((dir / "f").c_str(), "a+");
    char line[16];
    EXPECT_STREQ(std::fgets(line, sizeof line, stream), "one\n");
    std::fseek(stream, 0, SEEK_SET);
    std::fputs("three\n", stream);
    std::rewind(stream);
    EXPECT_STREQ(std::fgets(line, sizeof line, stream), "one\n");
    EXPECT_EQ(close_and_unlock_file(stream), 0);
    EXPECT_EQ(testing_files::read(dir / "f"), "one\ntwo\nthree\n");
}

TEST(Lock, AnExistingFileKeepsItsMode) {
    const TempDir dir;
    testing_files::write(dir / "f", "x");
    ASSERT_EQ(::chmod((dir / "f").c_str(), 0604), 0);
    for (const char* mode : kModes) {
        close_and_unlock_file(open_and_lock_file((dir / "f").c_str(), mode));
        EXPECT_EQ(testing_files::mode_of(dir / "f"), 0604U) << mode;
    }
}

TEST(Lock, IsOneOfTheWholeFileOtherProgramsSee) {
    for (const char* mode : kModes) {
        SCOPED_TRACE(mode);
        const TempDir dir;
        testing_files::write(dir / "f", "x");
        FILE* stream = open_and_lock_file((dir / "f").c_str(), mode);
        EXPECT_EQ(is_free_for(dir / "f", LOCK_SH), is_shared(mode));
        EXPECT_FALSE(is_free_for(dir / "f", LOCK_EX));
        close_and_unlock_file(stream);
        EXPECT_TRUE(is_free_for(dir / "f", LOCK_EX));
    }
}

TEST(Lock, IsWaitedForUnlessBothAreShared) {
    for (const char* held : kModes) {
        for (const char* wanted : kModes) {
            SCOPED_TRACE(std::string(wanted) + " beside " + held);
            const TempDir dir;
            testing_files::write(dir / "f", "x");
            Opener other(dir / "f", wanted);
            FILE* stream = open_and_lock_file((dir / "f").c_str(), held);
            other.start();
            const bool beside = is_shared(held) && is_shared(wanted);
            EXPECT_EQ(other.has_it(beside ? kSoon : kAWhile), beside);
            close_and_unlock_file(stream);
            EXPECT_TRUE(other.has_it(kSoon));
            EXPECT_EQ(other.child().wait(), 0);
        }
    }
}

TEST(Lock, ThreadsOfOneProcessWaitForEachOther) {
    const TempDir dir;
    FILE* stream = open_and_lock_file((dir / "f").c_str(), "w");
    std::atomic<bool> got = false;
    pthread_t thread;
    struct Shared {
        std::string path;
        std::atomic<bool>& got;
    } shared = {dir / "f", got};
    ::pthread_create(
        &thread, nullptr,
        [](void* arg) -> void* {
            auto* with = static_cast<Shared*>(arg);
            FILE* mine = open_and_lock_file(with->path.c_str(), "w");
            with->got = true;
            close_and_unlock_file(mine);
            return nullptr;
        },
        &shared);
    ::usleep(kAWhile * 1000);
    EXPECT_FALSE(got);
    close_and_unlock_file(stream);
    ::pthread_join(thread, nullptr);
    EXPECT_TRUE(got);
}

TEST(Lock, InterruptionsDoNotEndTheWait) {
    const TempDir dir;
    static volatile std::sig_atomic_t signals = 0;
    struct sigaction action = {};
    action.sa_handler = [](int) { signals = signals + 1; };  // without SA_RESTART
    ::sigaction(SIGUSR1, &action, nullptr);
    Opener other(dir / "f", "a+", [](FILE*) { return signals > 0 ? 0 : 2; });
    FILE* stream = open_and_lock_file((dir / "f").c_str(), "w");
    other.start();
    for (int i = 0; i < 5; ++i) {
        EXPECT_FALSE(other.has_it(20));
        other.child().kill(SIGUSR1);
    }
    EXPECT_FALSE(other.has_it(20));
    close_and_unlock_file(stream);
    EXPECT_TRUE(other.has_it(kSoon));
    EXPECT_EQ(other.child().wait(), 0);
}

TEST(Lock, AWaitingWriterHasNotEmptiedTheFile) {
    const TempDir dir;
    testing_files::write(dir / "f", "content");
    Opener writer(dir / "f", "w");
    FILE* reader = open_and_lock_file((dir / "f").c_str(), "r");
    writer.start();
    EXPECT_FALSE(writer.has_it(kAWhile));
    char text[16] = "";
    EXPECT_STREQ(std::fgets(text, sizeof text, reader), "content");
    close_and_unlock_file(reader);
    EXPECT_EQ(writer.child().wait(), 0);
    EXPECT_EQ(testing_files::read(dir / "f"), "");
}

TEST(Lock, ReadersSeeWholeFilesOnly) {
    const TempDir dir;
    const std::string path = dir / "f";
    const std::string texts[] = {std::string(9000, 'a'), std::string(20000, 'b')};
    testing_files::write(path, texts[0]);
    const int failed = testing_processes::run_together(4, [&](int n) {
        for (int i = 0; i < 400; ++i) {
            FILE* stream = open_and_lock_file(path.c_str(), n < 2 ? "w" : "r");
            if (n < 2) {
                std::fputs(texts[n].c_str(), stream);
            } else {
                std::string got(30000, '\0');
                got.resize(std::fread(got.data(), 1, got.size(), stream));
                if (got != texts[0] && got != texts[1]) return 1;
            }
            if (close_and_unlock_file(stream) != 0) return 2;
        }
        return 0;
    });
    EXPECT_EQ(failed, 0);
}

TEST(Lock, AppendsFromManyProcessesAreAllThere) {
    const TempDir dir;
    const std::string path = dir / "f";
    const int failed = testing_processes::run_together(4, [&](int n) {
        for (int i = 0; i < 500; ++i) {
            FILE* stream = open_and_lock_file(path.c_str(), "a+");
            std::fprintf(stream, "%d %d\n", n, i);
            if (close_and_unlock_file(stream) != 0) return 1;
        }
        return 0;
    });
    EXPECT_EQ(failed, 0);
    std::map<std::string, int> lines;
    FILE* stream = open_and_lock_file(path.c_str(), "r");
    char line[64];
    while (std::fgets(line, sizeof line, stream) != nullptr) ++lines[line];
    close_and_unlock_file(stream);
    EXPECT_EQ(lines.size(), 2000U);
}

TEST(Lock, EndsHoweverTheStreamIsClosed) {
    const std::map<std::string, std::function<int(FILE*)>> ways = {
        {"close_and_unlock_file", [](FILE* s) { return close_and_unlock_file(s); }},
        {"fclose", [](FILE* s) { return std::fclose(s); }},
        {"close", [](FILE* s) { return ::close(::fileno(s)); }},
        {"exit", [](FILE*) { return 0; }},
        {"signal", [](FILE*) { return ::kill(::getpid(), SIGKILL); }},
    };
    for (const auto& row : ways) {
        const auto& name = row.first;
        const auto& way = row.second;
        SCOPED_TRACE(name);
        const TempDir dir;
        const int result = Child([&] {
                               FILE* stream = open_and_lock_file((dir / "f").c_str(), "w");
                               if (is_free_for(dir / "f", LOCK_SH)) return 1;
                               if (way(stream) != 0) return 2;
                               // They come after the first three of the same process.
                               return name == "exit" || is_free_for(dir / "f", LOCK_EX) ? 0 : 3;
                           }).wait();
        EXPECT_EQ(result, name == "signal" ? 128 + SIGKILL : 0);
        EXPECT_TRUE(is_free_for(dir / "f", LOCK_EX));
    }
}

TEST(Lock, IsSharedWithAChildUntilTheLastCopyIsClosed) {
    const TempDir dir;
    FILE* stream = open_and_lock_file((dir / "f").c_str(), "w");
    int gate[2];
    ASSERT_EQ(::pipe(gate), 0);
    Child child([&] {
        char byte;
        ::close(gate[1]);
        return static_cast<int>(::read(gate[0], &byte, 1));
    });
    close_and_unlock_file(stream);
    EXPECT_FALSE(is_free_for(dir / "f", LOCK_EX));
    ::close(gate[1]);
    EXPECT_EQ(child.wait(), 0);
    EXPECT_TRUE(is_free_for(dir / "f", LOCK_EX));
    ::close(gate[0]);
}

TEST(Lock, IsNotInheritedByOtherPrograms) {
    for (const char* mode : kModes) {
        const TempDir dir;
        testing_files::write(dir / "f", "x");
        FILE* stream = open_and_lock_file((dir / "f").c_str(), mode);
        EXPECT_NE(::fcntl(::fileno(stream), F_GETFD) & FD_CLOEXEC, 0);
        close_and_unlock_file(stream);
    }
}

TEST(Lock, StaysOffTheStandardDescriptors) {
    const TempDir dir;
    const int result = Child([&] {
                           for (const int fd : {0, 1, 2}) ::close(fd);
                           FILE* stream = open_and_lock_file((dir / "f").c_str(), "w");
                           if (stream == nullptr) return 1;
                           const int fd = ::fileno(stream);
                           if (fd < 3 || (::fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0) return 2;
                           if (is_free_for(dir / "f", LOCK_SH)) return 3;
                           for (const int standard : {0, 1, 2}) {
                               if (::fcntl(standard, F_GETFD) != -1) return 4;
                           }
                           return close_and_unlock_file(stream);
                       }).wait();
    EXPECT_EQ(result, 0);
}

TEST(Lock, ItIsReleasedAfterTheLastByte) {
    const TempDir dir;
    const std::string path = dir / "f";
    Opener reader(path, "r", [](FILE* s) {
        char text[16] = "";
        if (std::fgets(text, sizeof text, s) == nullptr) return 2;
        return std::string(text) == "buffered" ? 0 : 3;
    });
    FILE* stream = open_and_lock_file(path.c_str(), "w");
    std::fputs("buffered", stream);
    reader.start();
    EXPECT_FALSE(reader.has_it(kAWhile));
    close_and_unlock_file(stream);
    EXPECT_EQ(reader.child().wait(), 0);
}

TEST(Lock, ACloseThatLosesBytesSaysSoAndUnlocksAllTheSame) {
    const TempDir dir;
    const std::size_t before = testing_files::open_descriptors();
    const int result = Child([&] {
                           std::signal(SIGXFSZ, SIG_IGN);
                           const struct rlimit limit = {4, 4};
                           FILE* stream = open_and_lock_file((dir / "f").c_str(), "w");
                           std::fputs("too long", stream);
                           ::setrlimit(RLIMIT_FSIZE, &limit);
                           if (close_and_unlock_file(stream) != EOF || errno != EFBIG) return 1;
                           if (testing_files::open_descriptors() != before) return 2;
                           return is_free_for(dir / "f", LOCK_EX) ? 0 : 3;
                       }).wait();
    EXPECT_EQ(result, 0);
}

TEST(Lock, FailuresSayWhyAndLeaveNoDescriptor) {
    const TempDir dir;
    testing_files::make_dirs(dir / "sub");
    testing_files::write(dir / "file", "x");
    const struct {
        std::string path;
        const char* mode;
        int error;
    } rows[] = {
        {"", "w", ENOENT},
        {dir / "missing", "r", ENOENT},
        {dir / "missing/f", "w", ENOENT},
        {dir / "sub", "w", EISDIR},
        {dir / "sub", "a+", EISDIR},
        {dir / "file/f", "a+", ENOTDIR},
        {dir / std::string(256, 'n'), "w", ENAMETOOLONG},
        {"/" + std::string(5000, '/') + "f", "w", ENAMETOOLONG},
    };
    const std::size_t before = testing_files::open_descriptors();
    for (const auto& row : rows) {
        errno = 0;
        EXPECT_EQ(open_and_lock_file(row.path.c_str(), row.mode), nullptr) << row.path;
        EXPECT_EQ(errno, row.error) << row.path;
    }
    EXPECT_EQ(testing_files::open_descriptors(), before);
}

TEST(Lock, NeedsTheRightsOfItsMode) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can be somebody else";
    const TempDir dir;
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    testing_files::write(dir / "f", "x");
    ASSERT_EQ(::chmod((dir / "f").c_str(), 0444), 0);
    const int result = testing_processes::run_unprivileged([&] {
        FILE* stream = open_and_lock_file((dir / "f").c_str(), "r");
        if (stream == nullptr || close_and_unlock_file(stream) != 0) return 1;
        for (const char* mode : {"w", "a+"}) {
            if (open_and_lock_file((dir / "f").c_str(), mode) != nullptr || errno != EACCES) {
                return 2;
            }
            if (open_and_lock_file((dir / "new").c_str(), mode) != nullptr) return 3;
        }
        return 0;
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(testing_files::read(dir / "f"), "x");
}
