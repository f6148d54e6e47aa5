#include "tools/work/folder_list.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "testing/files.h"

using namespace Tessaly::tool;

// A removal beside a walk: the system says of the open directory that there is none.
TEST(Listing, OfADirectoryThatWasRemovedIsEmpty) {
    const testing_files::TempDir dir;
    const std::string path = dir / "gone";
    ASSERT_EQ(::mkdir(path.c_str(), 0700), 0);
    const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::rmdir(path.c_str()), 0);
    const Listing listing = list_directory(fd);
    ::close(fd);
    EXPECT_EQ(listing.error, 0);
    EXPECT_FALSE(listing.is_folder);
    EXPECT_TRUE(listing.below.empty());
}
