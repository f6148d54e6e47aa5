// The date of the last scan for unread messages.
#include <gtest/gtest.h>
#include <tessaly/mailstore.h>

#include <climits>

#include "testing/files.h"
#include "testing/processes.h"

namespace files = testing_files;

namespace {

class ScanDate : public testing::Test {
  protected:
    files::TempDir dir;
    const std::string path = dir / ".ts_unread_scan_date";
    std::size_t descriptors = files::open_descriptors();
    ~ScanDate() override { EXPECT_EQ(files::open_descriptors(), descriptors); }
};

TEST_F(ScanDate, ComesBack) {
    for (const int date : {0, 1, -1, 1700000000, INT_MAX, INT_MIN}) {
        EXPECT_EQ(tsl_set_mail_unread_scandate(dir.path().c_str(), date), 0);
        EXPECT_EQ(files::read(path), std::to_string(date) + "\n");
        long read = 77;
        EXPECT_EQ(tsl_get_mail_unread_scandate(dir.path().c_str(), &read), 0);
        EXPECT_EQ(read, date);
    }
}

TEST_F(ScanDate, CannotBeOpened) {
    long date = 77;
    EXPECT_EQ(tsl_set_mail_unread_scandate("/none", 5), 0);
    EXPECT_EQ(tsl_set_mail_unread_scandate(nullptr, 5), 0);
    EXPECT_EQ(tsl_get_mail_unread_scandate(dir.path().c_str(), &date), -1);
    EXPECT_EQ(tsl_get_mail_unread_scandate(nullptr, &date), -1);
    files::make_dirs(path);
    EXPECT_EQ(tsl_set_mail_unread_scandate(dir.path().c_str(), 5), 0);
    EXPECT_EQ(tsl_get_mail_unread_scandate(dir.path().c_str(), &date), -1);
    EXPECT_EQ(date, 77);
}

// The beginning of a date would be another date.
TEST_F(ScanDate, IsNotCutWithinItsNumber) {
    for (std::size_t room = 1; room < std::string("1700000000\n").size(); ++room) {
        files::write(path, "5\n");
        const auto set = [&] {
            return tsl_set_mail_unread_scandate(dir.path().c_str(), 1700000000);
        };
        EXPECT_EQ(testing_processes::run_with_file_limit(room, set), 0);
        EXPECT_EQ(files::read(path), "") << room;
        long date = 77;
        EXPECT_EQ(tsl_get_mail_unread_scandate(dir.path().c_str(), &date), -1);
    }
}

TEST_F(ScanDate, TheLastLineThatBeginsWithANumberCounts) {
    const std::string pad(250, ' ');
    const struct {
        std::string text;
        int result;
        long date;
    } rows[] = {
        {"", -1, 77},
        {"\n", -1, 77},
        {"abc\n", -1, 77},
        {"5", 0, 5},
        {"5\n6\nabc\n\n", 0, 6},
        {" \t-12 years\n", 0, -12},
        {pad + "12345\n", 0, 5},  // cut after 254 characters; what is left is a line of its own
        {pad + "123\n", 0, 123},
        {"2147483648\n", 0, INT_MIN},  // a number of 32 bits
        {"4294967297\n", 0, 1},
        {"99999999999999999999\n", 0, -1},
        {"-99999999999999999999\n", 0, 0},
    };
    for (const auto& [text, result, expected] : rows) {
        files::write(path, text);
        long date = 77;
        EXPECT_EQ(tsl_get_mail_unread_scandate(dir.path().c_str(), &date), result) << text;
        EXPECT_EQ(date, expected) << text;
    }
    EXPECT_EQ(tsl_get_mail_unread_scandate(dir.path().c_str(), nullptr), 0);
}

TEST_F(ScanDate, PathIsCut) {
    std::string deep = dir.path();
    deep.resize(4088, '/');  // room for 6 of the name's characters
    EXPECT_EQ(tsl_set_mail_unread_scandate(deep.c_str(), 5), 0);
    EXPECT_EQ(files::read(dir / ".ts_un"), "5\n");
    long date = 0;
    EXPECT_EQ(tsl_get_mail_unread_scandate(deep.c_str(), &date), 0);
    EXPECT_EQ(date, 5);
}

}  // namespace
