// This program defines open_and_lock_file itself, as a process of the appliance may, and answers
// with streams in memory. They have no descriptor.
#include <gtest/gtest.h>
#include <tessaly/mailstore.h>
#include <tessaly/support.h>

#include <map>

#include "testing/files.h"

namespace files = testing_files;

namespace {

// What the streams hold, by path.
std::map<std::string, std::string> memory;
bool memory_fails = false;

struct Cookie {
    std::string* text;
    std::size_t read = 0;
};

ssize_t read_memory(void* cookie, char* buffer, size_t size) {
    if (memory_fails) return -1;
    auto& place = *static_cast<Cookie*>(cookie);
    // Short, as a pipe would be, so that lines are put together from several reads.
    const std::size_t n = place.text->copy(buffer, std::min<std::size_t>(size, 3), place.read);
    place.read += n;
    return static_cast<ssize_t>(n);
}

ssize_t write_memory(void* cookie, const char* buffer, size_t size) {
    if (memory_fails) return 0;
    static_cast<Cookie*>(cookie)->text->append(buffer, size);
    return static_cast<ssize_t>(size);
}

int seek_memory(void* cookie, off64_t* offset, int whence) {
    auto& place = *static_cast<Cookie*>(cookie);
    if (whence == SEEK_END) *offset += static_cast<off64_t>(place.text->size());
    if (whence == SEEK_CUR) *offset += static_cast<off64_t>(place.read);
    place.read = static_cast<std::size_t>(*offset);
    return 0;
}

int close_memory(void* cookie) {
    delete static_cast<Cookie*>(cookie);
    return 0;
}

}  // namespace

FILE* open_and_lock_file(const char* path, const char* mode) {
    std::string& text = memory[path];
    if (*mode == 'w') text.clear();
    return ::fopencookie(new Cookie{&text}, mode,
                         {read_memory, write_memory, seek_memory, close_memory});
}

namespace {

class MemoryStream : public testing::Test {
  protected:
    void SetUp() override {
        memory.clear();
        memory_fails = false;
        files::write(folder_file_, "");  // exists, its content is elsewhere
        files::write(scan_date_, "");
    }
    void TearDown() override { memory_fails = false; }

    struct Sums {
        int result;
        unsigned long long size, count;
        bool operator==(const Sums&) const = default;
    };
    Sums read() const {
        Sums sums{0, 77, 77};
        sums.result = tsl_read_mail_folder_size(folder_file_.c_str(), &sums.size, &sums.count);
        return sums;
    }

    files::TempDir dir_;
    const std::string mail_ = dir_ / "mail";
    const std::string folder_ = mail_ + "/Inbox";
    const std::string folder_file_ = folder_ + "/.ts_folder_size";
    const std::string mailbox_file_ = mail_ + "/.maildirsize";
    const std::string scan_date_ = folder_ + "/.ts_unread_scan_date";
};

TEST_F(MemoryStream, TakesRecordsAndGivesTheirSum) {
    tsl_append_mail_folder_size(folder_file_.c_str(), 2048, 1);
    tsl_append_mail_folder_size(folder_file_.c_str(), -48, 2);
    EXPECT_EQ(memory[folder_file_], "2048 1\n-48 2\n");
    EXPECT_EQ(read(), (Sums{0, 2000, 3}));
    tsl_write_mail_folder_size(folder_file_.c_str(), 5, 1);
    EXPECT_EQ(memory[folder_file_], "5 1\n");

    tsl_append_maildirsize(mailbox_file_.c_str(), 7, 1);
    unsigned long long size = 0;
    EXPECT_EQ(tsl_get_maildirsize(nullptr, mail_.c_str(), &size, nullptr), 0);
    EXPECT_EQ(size, 7);
    EXPECT_EQ(files::read(folder_file_), "");
}

// A stream cannot be cut, so its text is only added to, and the sum stays right.
TEST_F(MemoryStream, IsNotCompacted) {
    std::string text;
    while (text.size() <= 4096) text += "1 1\n";
    memory[folder_file_] = text;
    tsl_append_mail_folder_size(folder_file_.c_str(), 10, 1);
    EXPECT_EQ(memory[folder_file_], text + "10 1\n");
    const unsigned long long records = text.size() / 4;
    EXPECT_EQ(read(), (Sums{0, records + 10, records + 1}));
}

TEST_F(MemoryStream, KeepsTheScanDate) {
    long date = 0;
    EXPECT_EQ(tsl_get_mail_unread_scandate(folder_.c_str(), &date), -1);
    tsl_set_mail_unread_scandate(folder_.c_str(), 1763275200);
    EXPECT_EQ(memory[scan_date_], "1763275200\n");
    EXPECT_EQ(tsl_get_mail_unread_scandate(folder_.c_str(), &date), 0);
    EXPECT_EQ(date, 1763275200);
    memory[scan_date_] = "no date\n5\n" + std::string(300, 'x') + "\n-6";
    EXPECT_EQ(tsl_get_mail_unread_scandate(folder_.c_str(), &date), 0);
    EXPECT_EQ(date, -6);
}

TEST_F(MemoryStream, ThatFailsIsDamage) {
    memory[folder_file_] = "5 1\n";
    memory[scan_date_] = "5\n";
    memory_fails = true;
    long date = 7;
    EXPECT_EQ(tsl_get_mail_unread_scandate(folder_.c_str(), &date), -1);
    EXPECT_EQ(read(), (Sums{-1, 0, 0}));
    tsl_append_mail_folder_size(folder_file_.c_str(), 1, 1);
    EXPECT_EQ(memory[folder_file_], "5 1\n");
}

}  // namespace
