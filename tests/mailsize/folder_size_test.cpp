// Sizes of folder trees in kilobytes.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <tessaly/MailUserId.h>
#include <unistd.h>

#include <climits>

#include "testing/files.h"
#include "testing/processes.h"

namespace files = testing_files;
using Tessaly::TSMailUserId;

namespace {

class FolderSize : public testing::Test {
  protected:
    files::TempDir dir;
    const TSMailUserId id{Tessaly::MAILBOX_GIVEN_PATH, dir.path()};
    std::size_t descriptors = files::open_descriptors();
    ~FolderSize() override { EXPECT_EQ(files::open_descriptors(), descriptors); }

    // A folder with this text in its size file.
    void folder(const std::string& name, const std::string& record) {
        files::write(dir / name + "/.maildirfolder", "");
        files::write(dir / name + "/.ts_folder_size", record);
    }
    void link(const std::string& target, const std::string& name) {
        ASSERT_EQ(::symlink(target.c_str(), (dir / name).c_str()), 0);
    }
};

TEST_F(FolderSize, IsRoundedUp) {
    const struct {
        const char* text;
        unsigned long long kilobytes;
    } rows[] = {
        {"", 0},
        {"0 0\n", 0},
        {"1 1\n", 1},
        {"1023 1\n", 1},
        {"1024 1\n", 1},
        {"1025 1\n", 2},
        {"2048 1\n", 2},
        {"2049 1\n-1 0\n", 2},
        {"-5 -1\n", 0},
        {"5000 -1\n", 5},
        {"99999999999999999999 1\n", 0},
        {"9223372036854775807 1\n", 9007199254740992ULL},
    };
    for (const auto& [text, kilobytes] : rows) {
        folder("F", text);
        EXPECT_EQ(id.getFolderSize("F"), kilobytes) << text;
    }
}

TEST_F(FolderSize, FilesOfAFolderAreNoFolders) {
    folder("F", "5 1\n");
    files::write(dir / "F/notes", "0 0\n");
    EXPECT_EQ(id.getFolderSize("F"), 1U);
}

TEST_F(FolderSize, OfWhatIsNoFolder) {
    EXPECT_EQ(id.getFolderSize(""), 0U);
    EXPECT_EQ(id.getFolderSize("none"), 0U);
    EXPECT_EQ(id.getFolderSize(std::string(5000, 'x')), 0U);
    files::write(dir / "plain/.ts_folder_size", "5000 1\n");
    EXPECT_EQ(id.getFolderSize("plain"), 0U);
    files::write(dir / "file", "text");
    EXPECT_EQ(id.getFolderSize("file"), 0U);
    files::make_maildir(dir / "bare");
    EXPECT_EQ(id.getFolderSize("bare"), 0U);
}

TEST_F(FolderSize, AddsTheFoldersBelow) {
    folder("F", "1 1\n");
    folder("F/a", "1 1\n");
    folder("F/a/b", "1025 1\n");
    folder("F/c", "3000 1\n");
    EXPECT_EQ(id.getFolderSize("F"), 1U + 1 + 2 + 3);
    EXPECT_EQ(id.getFolderSize("F/a"), 3U);
    EXPECT_EQ(id.getFolderSize("F/"), 7U);
    // These do not count, and neither does anything below them.
    for (const char* name : {"F/.hidden", "F/cur", "F/NEW", "F/Tmp"}) {
        folder(name, "5000 1\n");
        folder(std::string(name) + "/x", "5000 1\n");
    }
    files::write(dir / "F/plain/.ts_folder_size", "5000 1\n");
    folder("F/plain/x", "5000 1\n");
    EXPECT_EQ(id.getFolderSize("F"), 7U);
    // Names that only resemble them.
    for (const char* name : {"F/curl", "F/tmp2", "F/ne"}) folder(name, "1 1\n");
    EXPECT_EQ(id.getFolderSize("F"), 10U);
}

TEST_F(FolderSize, FollowsLinksButInNoCircle) {
    folder("F", "1 1\n");
    folder("F/a", "1 1\n");
    folder("F/a/b", "1 1\n");
    folder("other", "1 1\n");
    folder("other/x", "1 1\n");
    link("../other", "F/link");
    link("a", "F/again");  // the same folders by another way count again
    EXPECT_EQ(id.getFolderSize("F"), 3U + 2 + 2);
    link("..", "F/a/up");
    link(".", "F/a/b/self");
    link(dir / "F", "other/x/round");
    link("nowhere", "F/dangling");
    EXPECT_EQ(id.getFolderSize("F"), 3U + 2 + 2);
    // From below, the link "up" leads to folders that the walk is not inside of: F, "link" with its
    // x, and again with its b. The folder a itself is the top.
    EXPECT_EQ(id.getFolderSize("F/a"), 2U + 1 + 2);
}

// As deep as a path can be, with a stack and a number of descriptors that are too small for a
// recursion.
TEST_F(FolderSize, GoesAsDeepAsPathsGo) {
    std::string path = dir.path();
    ASSERT_EQ(::chdir(path.c_str()), 0);
    unsigned long long reachable = 0;
    for (int depth = 0; depth < 2200; ++depth) {
        ASSERT_EQ(::mkdir("d", 0777), 0);
        ASSERT_EQ(::chdir("d"), 0);
        path += "/d";
        files::write(".maildirfolder", "");
        files::write(".ts_folder_size", "1 1\n");
        reachable += path.size() + sizeof "/.ts_folder_size" <= PATH_MAX;
    }
    ASSERT_EQ(::chdir("/"), 0);
    testing_processes::Child child([&] {
        const struct rlimit stack = {256 * 1024, 256 * 1024}, files = {16, 16};
        ::setrlimit(RLIMIT_STACK, &stack);
        ::setrlimit(RLIMIT_NOFILE, &files);
        return id.getFolderSize("d") == reachable ? 0 : 1;
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_GT(reachable, 2000U);
    EXPECT_EQ(std::system(("rm -rf " + dir.path() + "/d").c_str()), 0);
}

TEST_F(FolderSize, ManyFolders) {
    folder("F", "1 1\n");
    for (int i = 0; i < 1500; ++i) folder("F/" + std::to_string(i), "1 1\n");
    EXPECT_EQ(id.getFolderSize("F"), 1501U);
}

TEST_F(FolderSize, ByTheMailboxLayout) {
    const TSMailUserId user("ann@site.test");
    const std::string mail = "/var/spool/home/site.test/ann~site.test/mail";
    files::make_maildir(mail + "/Inbox");
    files::write(mail + "/Inbox/.ts_folder_size", "5000 1\n");
    EXPECT_EQ(user.getFolderSize("Inbox"), 5U);
    files::write(mail + "/Inbox/.ts_folder_size", "-5000 1\n");
    EXPECT_EQ(user.getFolderSize("Inbox"), 0U);
    EXPECT_TRUE(files::exists(mail + "/.maildirsize.dirty"));
}

TEST_F(FolderSize, TheDirectTypeRefuses) {
    const TSMailUserId direct(Tessaly::MAILBOX_DIRECT, "/tmp");
    for (const char* name : {"", "Inbox"}) {
        try {
            direct.getFolderSize(name);
            ADD_FAILURE() << "no exception";
        } catch (const Tessaly::Exception& e) {
            EXPECT_EQ(e.message(), " TSDirectMailUserId::getFolderSize() - Not Implimented");
            EXPECT_EQ(e.code(), 4);
            EXPECT_STREQ(e.file(), "MailUserId");
            EXPECT_EQ(e.line(), 344);
        }
    }
}

}  // namespace
