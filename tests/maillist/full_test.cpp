// Lists on a file system that is full: the program runs with a spool of 256 KiB.
#include <fcntl.h>
#include <tessaly/maillist.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "lists.h"
#include "testing/files.h"

using namespace lists;

namespace {

constexpr char kFiller[] = "/var/spool/filler";

// Takes all the free space except for so many bytes.
void fill_but_for(off_t spare) {
    const int fd = ::open(kFiller, O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    ASSERT_GE(fd, 0);
    const std::string block(4096, '#');
    off_t size = 0;
    for (ssize_t n = 0; (n = ::write(fd, block.data(), block.size())) > 0; size += n) {
    }
    ASSERT_EQ(errno, ENOSPC);
    ASSERT_EQ(::ftruncate(fd, size - spare), 0);
    ::close(fd);
}

}  // namespace

TEST(FullDisk, RefusesANewListThatIsNotWhole) {
    const std::string before = numbered(2000);
    put(before);
    ASSERT_EQ(find("no"), 0);  // makes the lock file
    for (const off_t spare : {0, 4096, 8 * 4096}) {
        fill_but_for(spare);
        const std::size_t open = testing_files::open_descriptors();
        EXPECT_EQ(drop("user1@site.test"), -1);
        EXPECT_EQ(modify("x", 1), -1);
        EXPECT_EQ(drop_id(1), -1);
        EXPECT_EQ(testing_files::open_descriptors(), open);
        EXPECT_EQ(content(), before);
        EXPECT_EQ(testing_files::list(kDirectory),
                  (std::vector<std::string>{".test.lock", "test"}));
    }
    ASSERT_EQ(::unlink(kFiller), 0);
    EXPECT_EQ(drop("user1@site.test"), 0);
    EXPECT_EQ(content(), before.substr(before.find('\n') + 1));
}

TEST(FullDisk, IsNotToldByAnAdd) {
    const std::string page(254, 'x');
    std::string before;
    while (before.size() + 255 <= 4096) before += page + '\n';
    put(before);
    ASSERT_EQ(find("no"), 0);
    fill_but_for(0);
    const std::string entry(100, 'y');
    EXPECT_EQ(add(entry.c_str()), 0);
    // The part that fitted is in the list; nothing is repaired.
    EXPECT_EQ(content(), (before + entry + '\n').substr(0, 4096));
    EXPECT_EQ(content().size(), 4096U);
}
