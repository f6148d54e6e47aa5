#include "tools/spool/gift.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "testing/files.h"
#include "tools/cli/failure.h"

using namespace Tessaly::tool;
namespace fs = testing_files;

namespace {

constexpr uid_t kUser = 12345;
const std::string kDomain = "/var/spool/home/gift.test";
const std::string kHome = kDomain + "/ann~gift.test";

// What a user could put in a file's place between a look at it and the gift.
class GiveFile : public ::testing::Test {
  protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "needs root";
        std::filesystem::remove_all(kDomain);
        fs::make_dirs(kHome + "/mail");
        fs::write(kDomain + "/secret", "x");
        fs::write(kHome + "/mail/file", "x");
        ASSERT_EQ(::chown(kHome.c_str(), kUser, kUser), 0);
    }
    static uid_t owner_of_file(const std::string& path) {
        struct stat st;
        return ::stat(path.c_str(), &st) == 0 ? st.st_uid : static_cast<uid_t>(-1);
    }
    static void give(const std::string& path) {
        give_file(place_at(kHome), path, {true, kUser, kUser});
    }
};

TEST_F(GiveFile, GivesAFile) {
    give("mail/file");
    EXPECT_EQ(owner_of_file(kHome + "/mail/file"), kUser);
}

TEST_F(GiveFile, RefusesAFileWithAnotherName) {
    ASSERT_EQ(::link((kDomain + "/secret").c_str(), (kHome + "/mail/hard").c_str()), 0);
    EXPECT_THROW(give("mail/hard"), Failure);
    EXPECT_EQ(owner_of_file(kDomain + "/secret"), 0U);
}

TEST_F(GiveFile, FollowsNoLink) {
    ASSERT_EQ(::symlink("../../secret", (kHome + "/mail/link").c_str()), 0);
    ASSERT_EQ(::symlink("..", (kHome + "/up").c_str()), 0);
    for (const char* path : {"mail/link", "up/secret", "../secret", "mail/../../secret"}) {
        EXPECT_THROW(give(path), Failure) << path;
        EXPECT_EQ(owner_of_file(kDomain + "/secret"), 0U) << path;
    }
}

TEST_F(GiveFile, RefusesWhatIsNotARegularFile) {
    ASSERT_EQ(::mkfifo((kHome + "/mail/fifo").c_str(), 0600), 0);
    for (const char* path : {"mail", "mail/fifo", ".", "mail/missing", ""}) {
        EXPECT_THROW(give(path), Failure) << path;
    }
    EXPECT_EQ(owner_of_file(kHome + "/mail"), 0U);
    EXPECT_EQ(owner_of_file(kHome + "/mail/fifo"), 0U);
}

}  // namespace
