// Size files on a file system where a descriptor that was opened to append stays in append mode.
// The program's own fcntl (sticky_append.cpp) imitates it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <tessaly/mailstore.h>
#include <tessaly/support.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <thread>

#include "testing/files.h"
#include "testing/processes.h"

namespace files = testing_files;
using testing_processes::Child;

namespace {

const std::string kMail = "/var/spool/home/site.test/ann~site.test/mail";
const std::string kFile = kMail + "/.maildirsize";

std::string lines(int count) {
    std::string text;
    for (int i = 0; i < count; ++i) text += "10 1\n";
    return text;
}

TEST(StickyAppend, IsWhatThisProgramHas) {
    files::write("/tmp/file", "abc");
    const int fd = ::open("/tmp/file", O_RDWR | O_APPEND | O_CLOEXEC);
    ASSERT_EQ(::fcntl(fd, F_SETFL, 0), 0);
    ASSERT_EQ(::pwrite(fd, "x", 1, 0), 1);
    ::close(fd);
    EXPECT_EQ(files::read("/tmp/file"), "abcx");
}

TEST(StickyAppend, ACompactionWritesFromTheBeginning) {
    for (const char* name : {".maildirsize", ".ts_folder_size"}) {
        const std::string path = kMail + "/" + name;
        files::write(path, lines(820));
        tsl_append_mail_folder_size(path.c_str(), 7, 2);
        EXPECT_EQ(files::read(path), "8207 822\n") << name;
        tsl_append_mail_folder_size(path.c_str(), 1, 1);
        EXPECT_EQ(files::read(path), "8207 822\n1 1\n") << name;
    }
    files::write(kFile, lines(820));
    tsl_append_maildirsize(kFile.c_str(), 7, 2);
    EXPECT_EQ(files::read(kFile), "0S, 0C\n8207 822\n");
}

// Thousands of records with some compactions: the sum is that of all records.
TEST(StickyAppend, SumsStayRightOverManyCompactions) {
    files::write(kFile, "");
    long long size = 0, count = 0;
    for (int i = 0; i < 5000; ++i) {
        const long long more = i % 3 == 0 ? -i : 3LL * i;
        tsl_append_maildirsize(kFile.c_str(), more, 1);
        size += more;
        ++count;
    }
    unsigned long long kept_size = 0, kept_count = 0;
    EXPECT_EQ(tsl_get_maildirsize(nullptr, kMail.c_str(), &kept_size, &kept_count), 0);
    EXPECT_EQ(kept_size, static_cast<unsigned long long>(size));
    EXPECT_EQ(kept_count, static_cast<unsigned long long>(count));
    EXPECT_LE(files::read(kFile).size(), 4200U);
}

// Whether a process waits for a lock.
bool waits(pid_t pid) {
    std::ifstream locks("/proc/locks");
    const std::string process = " " + std::to_string(pid) + " ";
    for (std::string line; std::getline(locks, line);) {
        if (line.find("->") != line.npos && line.find(process) != line.npos) return true;
    }
    return false;
}

// Another file has taken the path, and its lock is not held. It stays as it is, and the record goes
// into the file that was locked.
TEST(StickyAppend, AFileInTheLockedOnesPlaceIsNotMistakenForIt) {
    const std::string other = lines(900), moved = kFile + ".moved";
    files::write(kFile, lines(820));
    std::FILE* const held = ::open_and_lock_file(kFile.c_str(), "r");
    ASSERT_NE(held, nullptr);
    Child writer([held] {
        ::close(::fileno(held));  // otherwise the child would have the lock, too
        return tsl_append_maildirsize(kFile.c_str(), 7, 2);
    });
    while (!waits(writer.pid())) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_EQ(::rename(kFile.c_str(), moved.c_str()), 0);
    files::write(kFile, other);
    ::close_and_unlock_file(held);
    EXPECT_EQ(writer.wait(), 0);
    EXPECT_EQ(files::read(kFile), other);
    EXPECT_EQ(files::read(moved), lines(820) + "7 2\n");
}

}  // namespace
