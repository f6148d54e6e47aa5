// Size files when single system calls fail, end short, or are the last ones of a killed process.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "testing/files.h"

namespace files = testing_files;

namespace {

const std::string kMail = "/var/spool/home/site.test/ann~site.test/mail";
const std::string kFile = kMail + "/.maildirsize";
const std::string kMarker = kMail + "/.maildirsize.dirty";

struct Outcome {
    std::string output;
    int status;
    int fired;  // the number of calls that were tampered with
};

// Runs an operation on `path` and tampers with the calls on that path (strace's inject expressions,
// separated by ';').
Outcome run(const std::string& inject, const std::string& operation, const std::string& path,
            const std::string& arguments = "") {
    const std::string log = "/tmp/strace.log";
    std::string command = "exec strace -qq -o " + log + " -P " + path;
    for (std::size_t at = 0; at < inject.size();) {
        const std::size_t end = std::min(inject.find(';', at), inject.size());
        command += " -e 'inject=" + inject.substr(at, end - at) + "'";
        at = end + 1;
    }
    command +=
        " -E ASAN_OPTIONS=detect_leaks=0 " RUN_OP " " + operation + " " + path + " " + arguments;
    FILE* const pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) throw std::runtime_error("popen");
    Outcome result{};
    char line[256];
    while (std::fgets(line, sizeof line, pipe) != nullptr) result.output += line;
    result.status = ::pclose(pipe);
    const std::string calls = files::read(log);
    for (const char* mark : {"(INJECTED)", "+++ killed by SIGKILL"}) {
        for (auto at = calls.find(mark); at != std::string::npos; at = calls.find(mark, at + 1)) {
            ++result.fired;
        }
    }
    return result;
}

// 4100 bytes that sum to 8200 and 820.
std::string long_file() {
    std::string text;
    for (int i = 0; i < 820; ++i) text += "10 1\n";
    return text;
}
constexpr char kCompacted[] = "0S, 0C\n8207 822\n";
const std::string kPlain = "7 2\n";

struct Row {
    const char* name;
    std::string before;
    const char* inject;
    std::string after;
    friend void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }
};

// The text of a compaction between its write and its cut.
std::string uncut() {
    std::string text = kCompacted;
    text.resize(4094, '\n');
    return text + "#10 1\n";
}

class Append : public testing::TestWithParam<Row> {};

TEST_P(Append, LosesNothing) {
    const auto& [name, before, inject, after] = GetParam();
    files::write(kFile, before);
    const Outcome r = run(inject, "append-mailbox", kFile, "7 2");
    EXPECT_EQ(r.output, "0 77 77, descriptors +0\n");
    EXPECT_GT(r.fired, 0);
    EXPECT_EQ(files::read(kFile), after);
}

INSTANTIATE_TEST_SUITE_P(
    Failing, Append,
    testing::Values(
        // The length is found in another way.
        Row{"FstatShort", "1 1\n", "?fstat,?newfstatat:error=EIO", "1 1\n7 2\n"},
        // The identity of the file remains unknown, so there is no compaction.
        Row{"FstatLong", long_file(), "?fstat,?newfstatat:error=EIO", long_file() + kPlain},
        Row{"LastFstat", long_file(), "?fstat,?newfstatat:error=EIO:when=3", long_file() + kPlain},
        Row{"LengthUnknown", long_file(), "?fstat,?newfstatat:error=EIO;lseek:error=EIO",
            long_file() + kPlain},
        // There is no compaction, but the record is added.
        Row{"ReadFails", long_file(), "pread64:error=EIO", long_file() + kPlain},
        Row{"SecondReadFails", long_file(), "pread64:error=EIO:when=2", long_file() + kPlain},
        Row{"ReadOfOldTextFails", long_file(), "pread64:error=EIO:when=3+", long_file() + kPlain},
        Row{"SecondOpenFails", long_file(), "openat:error=EMFILE:when=2", long_file() + kPlain},
        Row{"PwriteFails", long_file(), "pwrite64:error=EIO", long_file() + kPlain},
        Row{"DiskFull", long_file(), "pwrite64:error=ENOSPC", long_file() + kPlain},
        // Interruptions.
        Row{"ReadInterrupted", long_file(), "pread64:error=EINTR:when=1", kCompacted},
        Row{"PwriteInterrupted", long_file(), "pwrite64:error=EINTR:when=1", kCompacted},
        Row{"TruncateInterrupted", long_file(), "ftruncate:error=EINTR:when=1", kCompacted},
        Row{"WriteInterrupted", "", "write:error=EINTR:when=1", kPlain},
        Row{"LockInterrupted", "", "flock:error=EINTR:when=1", kPlain},
        // The uncut text has the same sum.
        Row{"TruncateFails", long_file(), "ftruncate:error=EIO", uncut()},
        // Nothing can be done, and nothing is changed.
        Row{"WriteFails", "1 1\n", "write:error=ENOSPC", "1 1\n"},
        Row{"LockFails", "1 1\n", "flock:error=ENOLCK", "1 1\n"}),
    [](const auto& row) { return row.param.name; });

TEST(Append, AnUncutFileSumsRight) {
    files::write(kFile, uncut());
    unsigned long long size = 0, count = 0;
    EXPECT_EQ(tsl_get_maildirsize(nullptr, kMail.c_str(), &size, &count), 0);
    EXPECT_EQ(size, 8207U);
    EXPECT_EQ(count, 822U);
    tsl_append_maildirsize(kFile.c_str(), 1, 1);
    EXPECT_EQ(files::read(kFile), "0S, 0C\n8208 823\n");
}

// The file system is so full that a record fits only in part. The part must not stay: the next
// record would continue its number.
TEST(Append, ATornRecordIsTakenBack) {
    const std::string record = "1234567890 1\n";
    files::write(kFile, record);
    // The limit lets 4 bytes of the next record pass.
    const std::string limited = "ulimit -f 1; trap '' XFSZ; ";
    std::string text;
    while (text.size() + record.size() < 1024) text += record;
    text.resize(1020, '\n');
    files::write(kFile, text);
    const std::string command =
        limited + "exec " RUN_OP " append-mailbox " + kFile + " 1234567890 1 >/dev/null";
    EXPECT_EQ(std::system(("bash -c \"" + command + "\"").c_str()), 0);
    EXPECT_EQ(files::read(kFile), text);
}

// The same in a compaction: the overwritten text is restored.
TEST(Append, ATornCompactionIsTakenBack) {
    const std::string text = long_file();
    files::write(kFile, text);
    const std::string command = "ulimit -f 3; trap '' XFSZ; exec " RUN_OP " append-mailbox " +
                                kFile + " 1234567890 1 >/dev/null";
    EXPECT_EQ(std::system(("bash -c \"" + command + "\"").c_str()), 0);
    EXPECT_EQ(files::read(kFile), text);
}

// A process that is killed on the way into any of its system calls on the file leaves the old sum
// or the new one.
TEST(Append, KilledAtAnyCallItLosesNothing) {
    int killed = 0;
    for (const char* call : {"openat", "flock", "?fstat,?newfstatat", "fcntl", "pread64",
                             "pwrite64", "ftruncate", "write", "close"}) {
        for (int when = 1;; ++when) {
            files::write(kFile, long_file());
            const Outcome r = run(std::string(call) + ":signal=KILL:when=" + std::to_string(when),
                                  "append-mailbox", kFile, "7 2");
            unsigned long long size = 0, count = 0;
            EXPECT_EQ(tsl_get_maildirsize(nullptr, kMail.c_str(), &size, &count), 0);
            EXPECT_TRUE((size == 8200 && count == 820) || (size == 8207 && count == 822))
                << call << " " << when << ": " << size << " " << count;
            if (r.fired == 0) break;
            ++killed;
        }
    }
    EXPECT_GE(killed, 9);
}

struct ReadRow {
    const char* name;
    std::string path;
    const char* inject;
    const char* output;
    bool marked;
    friend void PrintTo(const ReadRow& row, std::ostream* out) { *out << row.name; }
};
class Read : public testing::TestWithParam<ReadRow> {};

TEST_P(Read, ErrorIsNotTheEnd) {
    const auto& [name, path, inject, output, marked] = GetParam();
    files::write(path, "10 1\n");
    const Outcome r = run(inject, "read", path);
    EXPECT_EQ(r.output, std::string(output) + ", descriptors +0\n");
    EXPECT_GT(r.fired, 0);
    EXPECT_EQ(files::exists(kMarker), marked);
}

INSTANTIATE_TEST_SUITE_P(
    Failing, Read,
    testing::Values(ReadRow{"First", kFile, "pread64:error=EIO", "-1 0 0", true},
                    ReadRow{"AfterTheText", kFile, "pread64:error=EIO:when=2", "-1 0 0", true},
                    ReadRow{"Elsewhere", "/tmp/.ts_folder_size", "pread64:error=EIO", "0 0 0",
                            false},
                    ReadRow{"Interrupted", kFile, "pread64:error=EINTR:when=1", "0 10 1", false},
                    ReadRow{"OpenFails", kFile, "openat:error=EMFILE", "0 0 0", false},
                    ReadRow{"LockFails", kFile, "flock:error=ENOLCK", "0 0 0", false}),
    [](const auto& row) { return row.param.name; });

TEST(Other, AFailedWriteLeavesNoPart) {
    files::write("/tmp/cache", "mtime=1,size=2");
    files::write("/tmp/sizes", "1 1\n");
    EXPECT_EQ(run("write:error=ENOSPC", "write", "/tmp/sizes", "5 5").output,
              "0 77 77, descriptors +0\n");
    EXPECT_EQ(files::read("/tmp/sizes"), "");
    EXPECT_EQ(run("pwrite64:error=EIO", "write-cache", "/tmp/cache", "5 5").output,
              "0 77 77, descriptors +0\n");
    EXPECT_EQ(files::read("/tmp/cache"), "");
}

// A date or size before an error may be the beginning of a longer one.
TEST(Other, AReadErrorIsNotTheEnd) {
    std::string cache = "mtime=1,size=2";
    cache.insert(6, 128 - cache.size(), ' ');  // exactly as much as one read takes
    files::write("/tmp/cache", cache);
    EXPECT_EQ(run("pread64:error=EINTR:when=2", "read-cache", "/tmp/cache").output,
              "1 77 77, descriptors +0\n");
    EXPECT_EQ(run("pread64:error=EIO:when=2", "read-cache", "/tmp/cache").output,
              "0 77 77, descriptors +0\n");
    files::write("/tmp/.ts_unread_scan_date", std::string(8192 - 6, '\n') + "12345\n");
    EXPECT_EQ(run("pread64:error=EINTR:when=2", "get-date", "/tmp/.ts_unread_scan_date").output,
              "0 77 77, descriptors +0\n");
    EXPECT_EQ(run("pread64:error=EIO:when=2", "get-date", "/tmp/.ts_unread_scan_date").output,
              "-1 77 77, descriptors +0\n");
}

// Another text replaces the file's between two reads. The result is that of one of the two.
TEST(Other, ACacheReplacedBetweenReadsIsNotMixed) {
    for (const char* when : {"1", "2", "3", "4"}) {
        files::write("/tmp/cache", "mtime=1,size=2");
        std::thread writer([] {
            std::this_thread::sleep_for(std::chrono::milliseconds(150));
            tsl_write_maildir_cache_file("/tmp/cache", 2147483647, 2147483647);
        });
        const std::string inject = std::string("pread64:delay_enter=300000:when=") + when;
        const std::string seen = run(inject, "read-cache-numbers", "/tmp/cache").output;
        writer.join();
        EXPECT_TRUE(seen == "1 1 2, descriptors +0\n" ||
                    seen == "1 2147483647 2147483647, descriptors +0\n")
            << when << ": " << seen;
    }
}

// An error ends the reading, also while readings are compared.
TEST(Other, AnErrorAtAnyReadOfACacheIsAnswered) {
    files::write("/tmp/cache", "mtime=1,size=2");
    for (const char* when : {"1", "2", "3", "4", "5", "6", "7", "8"}) {
        const Outcome r =
            run(std::string("pread64:error=EIO:when=") + when, "read-cache", "/tmp/cache");
        EXPECT_EQ(r.output, "0 77 77, descriptors +0\n") << when;
        EXPECT_EQ(r.fired, 1) << when;
    }
    EXPECT_EQ(run("pread64:error=EIO:when=9", "read-cache", "/tmp/cache").fired, 0);
}

using Names = std::vector<std::string>;

struct TagRow {
    const char* name;
    const char* inject;
    Names cur, tmp;  // afterwards
    friend void PrintTo(const TagRow& row, std::ostream* out) { *out << row.name; }
};
class Tag : public testing::TestWithParam<TagRow> {};

// There are messages "a" and "b" of 10 bytes. "b" cannot get its new name, which is taken.
TEST_P(Tag, LosesNoMessage) {
    const auto& [name, inject, cur, tmp] = GetParam();
    const std::string folder = "/var/spool/Inbox";
    files::make_maildir(folder);
    files::write(folder + "/cur/a", "1234567890");
    files::write(folder + "/cur/b", "1234567890");
    files::write(folder + "/cur/b,#F#S#10#E", "other");
    const Outcome r = run(inject, "scan-cur", folder + "/cur", "4");
    EXPECT_EQ(r.output, "30 77 77, descriptors +0\n");
    EXPECT_GT(r.fired, 0);
    EXPECT_EQ(files::list(folder + "/cur"), cur);
    EXPECT_EQ(files::list(folder + "/tmp"), tmp);
    EXPECT_EQ(files::read(folder + "/cur/b"), "1234567890");
    EXPECT_EQ(files::read(folder + "/cur/b,#F#S#10#E"), "other");
}

const Names kTagged = {"a,#F#S#10#E", "b", "b,#F#S#10#E"};
const Names kUntagged = {"a", "b", "b,#F#S#10#E"};

INSTANTIATE_TEST_SUITE_P(
    Failing, Tag,
    testing::Values(
        // A file system and a kernel that cannot promise to replace nothing.
        TagRow{"FlagUnknown", "renameat2:error=EINVAL", kTagged, {}},
        TagRow{"CallUnknown", "renameat2:error=ENOSYS", kTagged, {}},
        TagRow{"NoRename", "renameat2:error=EACCES", kUntagged, {}},
        TagRow{"NoRenameEither", "renameat2:error=EINVAL;renameat:error=EACCES", kUntagged, {}},
        TagRow{"NoTmp", "?openat:error=EACCES:when=2", kTagged, {}},
        // The rename into tmp fails once, and that message is renamed directly. It may be any
        // message.
        TagRow{"NotIntoTmp", "renameat2:error=EXDEV:when=1", kTagged, {}}),
    [](const auto& row) { return row.param.name; });

// A message goes back from tmp under its old name if it cannot get the new one.
TEST(Tag, AMessageIsNotLeftInTmp) {
    const std::string folder = "/var/spool/Inbox";
    files::make_maildir(folder);
    files::write(folder + "/cur/a", "1234567890");
    const Outcome r = run("renameat2:error=ENOSPC:when=2", "scan-cur", folder + "/cur", "4");
    EXPECT_EQ(r.output, "10 77 77, descriptors +0\n");
    EXPECT_EQ(r.fired, 1);
    EXPECT_EQ(files::list(folder + "/cur"), Names{"a"});
    EXPECT_EQ(files::list(folder + "/tmp"), Names{});
}

class ScanFaults : public testing::Test {
  protected:
    const std::string folder = "/var/spool/Inbox";
    ScanFaults() {
        files::make_maildir(folder);
        files::write(folder + "/cur/a", "1234567890");
        files::write(folder + "/new/b", "12345");
        ::usleep(50'000);  // a directory that has just changed is read twice
    }
};

// The sum up to an error is returned, but not written into the cache.
TEST_F(ScanFaults, AnUnfinishedSumIsNotCached) {
    for (const char* when : {"1", "2"}) {
        const Outcome r = run(std::string("getdents64:error=EIO:when=") + when, "scan-folder-of",
                              folder + "/cur");
        EXPECT_EQ(r.output,
                  *when == '1' ? "5 77 77, descriptors +0\n" : "15 77 77, descriptors +0\n");
        EXPECT_EQ(r.fired, 1);
        EXPECT_FALSE(files::exists(folder + "/.ts_cache"));
    }
}

TEST_F(ScanFaults, WhatCannotBeLookedAtIsLeftOut) {
    EXPECT_EQ(
        run("?fstatat64,?newfstatat:error=EIO:when=2", "scan-folder-of", folder + "/cur").output,
        "5 77 77, descriptors +0\n");
    EXPECT_EQ(run("openat:error=EMFILE", "scan-folder-of", folder + "/cur").output,
              "5 77 77, descriptors +0\n");
}

TEST_F(ScanFaults, AnInterruptedReadGoesOn) {
    EXPECT_EQ(run("getdents64:error=EINTR:when=1", "scan-folder-of", folder + "/cur").output,
              "15 77 77, descriptors +0\n");
    EXPECT_EQ(run("openat:error=EINTR:when=1", "scan-folder-of", folder + "/cur").output,
              "15 77 77, descriptors +0\n");
}

TEST_F(ScanFaults, ACacheThatCannotBeReadSaysNothing) {
    const std::string cache = folder + "/.ts_cache";
    files::write(cache, "size=500\nmtime=99999999999\n");
    EXPECT_EQ(run("pread64:error=EINTR:when=1", "cached-size-of", cache).output,
              "500 77 77, descriptors +0\n");
    EXPECT_EQ(run("pread64:error=EIO", "cached-size-of", cache).output,
              "0 77 77, descriptors +0\n");
    files::write(cache, "size=500\n" + std::string(8192 - 9, '\n'));
    EXPECT_EQ(run("pread64:error=EIO:when=2", "cached-size-of", cache).output,
              "0 77 77, descriptors +0\n");
}

TEST_F(ScanFaults, ACacheThatCannotBeWrittenIsEmpty) {
    const std::string cache = folder + "/.ts_cache";
    files::write(cache, "mtime=1\nsize=7\n");
    EXPECT_EQ(run("pwrite64:error=ENOSPC", "scan-folder-of", cache).output,
              "15 77 77, descriptors +0\n");
    EXPECT_EQ(files::read(cache), "");
}

// The socket is close-on-exec, and the address has the full length of a socket address.
TEST(NotifyCalls, AreTheDocumentedOnes) {
    const std::string log = "/tmp/strace.log";
    const std::string command = "strace -qq -o " + log +
                                " -e trace=network -E ASAN_OPTIONS=detect_leaks=0 " RUN_OP
                                " notify /f 1 >/dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0);
    const std::string calls = files::read(log);
    EXPECT_NE(calls.find("socket(AF_UNIX, SOCK_DGRAM|SOCK_CLOEXEC, 0)"), calls.npos) << calls;
    EXPECT_NE(calls.find(", \"S1,F(/f)\", 8, 0, {sa_family=AF_UNIX, "
                         "sun_path=\"/tmp/quotad.socket\"}, 110)"),
              calls.npos)
        << calls;
}

}  // namespace
