// Removing messages with accounting.
#include <gtest/gtest.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <cerrno>

#include "testing/files.h"

namespace files = testing_files;

namespace {

struct Row {
    const char* path;    // below the mailbox
    int length;          // of the file; -1 if it does not exist
    const char* record;  // in Inbox/.ts_folder_size; nullptr if that does not exist
};

TEST(Unlink, RecordsWhatWasCounted) {
    const Row rows[] = {
        {"Inbox/cur/m,#F#S#300#E", 5, "-300 -1\n"},
        {"Inbox/new/m,#F#S#300#E:2,S", 5, "-300 -1\n"},
        {"Inbox/cur/m", 5, "-5 -1\n"},
        {"Inbox/cur/m,#F#S#0#E", 5, "-5 -1\n"},
        {"Inbox/cur/m,#F#S#-7#E", 5, "-5 -1\n"},
        {"Inbox/cur/m", 0, nullptr},
        {"Inbox/cur/m", -1, nullptr},
        {"Inbox/cur/m,#F#S#0#E", -1, nullptr},
        {"Inbox/cur/m,#F#S#300#E", -1, "-300 -1\n"},  // whether or not it can be removed
        {"Inbox/cur/m,#F#S#9223372036854775807#E", 1, "-9223372036854775807 -1\n"},
        {"Inbox/tmp/m,#F#S#300#E", 5, nullptr},
        {"Inbox/m,#F#S#300#E", 5, nullptr},
        {"Inbox/Cur/m,#F#S#300#E", 5, nullptr},
        {"Inbox/cur/sub/m,#F#S#300#E", 5, nullptr},
        {"Inbox/cur//m,#F#S#300#E", 5, nullptr},
        {"Inbox/xcur/m,#F#S#300#E", 5, nullptr},
        {"Inbox,#F#S#9#E/cur/m", 5, nullptr},  // the directory's name says nothing (and see below)
    };
    for (const auto& [path, length, record] : rows) {
        const files::TempDir box;
        files::make_maildir(box / "Inbox");
        const std::string file = box / path;
        if (length >= 0) files::write(file, std::string(static_cast<std::size_t>(length), 'x'));
        const std::size_t descriptors = files::open_descriptors();
        errno = 0;
        EXPECT_EQ(tsl_maildir_unlink_mail(file.c_str()), length < 0 ? -1 : 0) << path;
        EXPECT_EQ(errno == ENOENT, length < 0) << path;
        EXPECT_FALSE(files::exists(file));
        const std::string totals = box / "Inbox/.ts_folder_size";
        ASSERT_EQ(files::exists(totals), record != nullptr) << path;
        const std::string expected = record == nullptr ? "" : record;
        EXPECT_EQ(record == nullptr ? "" : files::read(totals), expected) << path;
        EXPECT_EQ(files::open_descriptors(), descriptors);
    }
}

TEST(Unlink, TheMessagesOwnNameCounts) {
    const files::TempDir box;
    files::write(box / "a,#F#S#9#E/cur/m", "12345");
    EXPECT_EQ(tsl_maildir_unlink_mail((box / "a,#F#S#9#E/cur/m").c_str()), 0);
    EXPECT_EQ(files::read(box / "a,#F#S#9#E/.ts_folder_size"), "-5 -1\n");
}

TEST(Unlink, ARecordIsAppended) {
    const files::TempDir box;
    files::write(box / "Inbox/.ts_folder_size", "1000 3\n");
    files::write(box / "Inbox/cur/m,#F#S#300#E", "");
    EXPECT_EQ(tsl_maildir_unlink_mail((box / "Inbox/cur/m,#F#S#300#E").c_str()), 0);
    EXPECT_EQ(files::read(box / "Inbox/.ts_folder_size"), "1000 3\n-300 -1\n");
}

TEST(Unlink, ShortAndLongPaths) {
    const files::TempDir box;
    ASSERT_EQ(::chdir(box.path().c_str()), 0);
    files::make_dirs(box / "cur");
    for (const char* path : {"m,#F#S#5#E", "cur/m,#F#S#5#E"}) {  // no folder to be seen
        files::write(box / path, "x");
        EXPECT_EQ(tsl_maildir_unlink_mail(path), 0);
    }
    files::write(box / "cur/m,#F#S#5#E", "x");
    EXPECT_EQ(tsl_maildir_unlink_mail("./cur/m,#F#S#5#E"), 0);
    EXPECT_EQ(files::read(box / ".ts_folder_size"), "-5 -1\n");
    ASSERT_EQ(::chdir("/"), 0);

    const std::string deep = box.path() + std::string(5000, '/') + "cur/m,#F#S#5#E";
    EXPECT_EQ(tsl_maildir_unlink_mail(deep.c_str()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(tsl_maildir_unlink_mail(nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(tsl_maildir_unlink_mail(""), -1);
    EXPECT_EQ(files::list(box.path()), (std::vector<std::string>{".ts_folder_size", "cur"}));
}

}  // namespace
