// Some file systems answer EEXIST where others answer ENOTEMPTY. In this program the first rename
// fails in that way.
#include <tessaly/mailstore.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testing/files.h"

namespace {

TEST(Schedule, ANameThatExists) {
    const testing_files::TempDir dir;
    testing_files::make_dirs(dir / "f");
    EXPECT_EQ(tsm_schedule_for_deletion((dir / "f").c_str(), dir.path().c_str(), "x"), 0);
    EXPECT_EQ(testing_files::list(dir.path()), std::vector<std::string>{".deleted.x.f.2"});
}

}  // namespace
