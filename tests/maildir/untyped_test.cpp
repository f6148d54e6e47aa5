// Directories on a file system that does not tell the types of entries (d_type is DT_UNKNOWN, as on
// some older disks and network file systems). The directories are real; this program wraps the
// library's call and removes the types. The tests that it is linked with run on such directories,
// too.
#include <dirent.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <tessaly/MailUserId.h>
#include <tessaly/mailstore.h>
#include <tessaly/support.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testing/files.h"

namespace {

int taken_away = 0;

}  // namespace

#pragma GCC visibility push(default)
extern "C" ssize_t getdents64(int fd, void* buffer, size_t size) noexcept {
    const long n = ::syscall(SYS_getdents64, fd, buffer, size);
    for (long at = 0; at < n;) {
        auto* entry = reinterpret_cast<dirent64*>(static_cast<char*>(buffer) + at);
        entry->d_type = DT_UNKNOWN;
        at += entry->d_reclen;
        ++taken_away;
    }
    return n;
}
#pragma GCC visibility pop

namespace {

using testing_files::list;
using testing_files::make_maildir;
using testing_files::TempDir;
using testing_files::write;
using Names = std::vector<std::string>;

int visited(const char* name, const struct stat*, void* names) {
    static_cast<Names*>(names)->push_back(name);
    return 1;
}

class Untyped : public testing::Test {
  protected:
    Untyped() {
        for (const char* name : {"f", "f/sub", "f/sub/sub"}) make_maildir(dir_ / name);
        write(dir_ / "f/cur/message", "12345");
        write(dir_ / "f/cur/directory/kept", "x");
        write(dir_ / "f/file", "x");
        ::symlink("sub", (dir_ / "f/link").c_str());
        taken_away = 0;
    }
    // Every case must have met entries whose types were removed.
    ~Untyped() override { EXPECT_GT(taken_away, 2); }

    const TempDir dir_;
    const std::string folder_ = dir_ / "f";
};

TEST_F(Untyped, Walk) {
    Names names;
    EXPECT_EQ(tsl_visit_folders(folder_.c_str(), 1, visited, &names), 4);
    EXPECT_EQ(names, (Names{"link", "sub/sub", "sub", "sub/sub"}));
}

TEST_F(Untyped, FolderSize) {
    for (const char* name : {"f", "f/sub", "f/sub/sub"}) {
        tsl_write_mail_folder_size((dir_ / name + "/.ts_folder_size").c_str(), 1024, 1);
    }
    const Tessaly::TSMailUserId id(Tessaly::MAILBOX_GIVEN_PATH, dir_.path());
    EXPECT_EQ(id.getFolderSize("f"), 1U + 2 + 2);  // the link leads to the same once more
}

TEST_F(Untyped, Scan) {
    const auto directory =
        static_cast<long long>(testing_files::status(folder_ + "/cur/directory").st_size);
    EXPECT_EQ(tsl_get_dir_size(folder_.c_str(), "cur", 0), 5 + directory);
}

TEST_F(Untyped, CleanFolder) {
    EXPECT_EQ(tsm_clean_maildir(folder_.c_str()), 0);
    EXPECT_EQ(list(folder_ + "/cur"), Names{"directory"});
    EXPECT_EQ(list(folder_ + "/cur/directory"), Names{"kept"});
    EXPECT_EQ(list(folder_), (Names{"cur", "file", "link", "new", "sub", "tmp"}));
}

TEST_F(Untyped, DeletePath) {
    EXPECT_EQ(tsm_delete_path(folder_.c_str()), 0);
    EXPECT_EQ(list(dir_.path()), Names{});
}

TEST_F(Untyped, CleanDirectory) {
    EXPECT_EQ(tsm_clean_dir(folder_.c_str(), 0), 0);
    EXPECT_EQ(list(folder_), Names{});
}

}  // namespace
