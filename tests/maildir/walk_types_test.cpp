// The walk where the file system tells the types of entries.
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testing/files.h"

namespace {

using testing_files::make_maildir;
using testing_files::TempDir;

struct State {
    std::string top;
    std::vector<std::string> names;
};

int replace_the_file(const char* name, const struct stat*, void* arg) {
    auto& state = *static_cast<State*>(arg);
    state.names.emplace_back(name);
    ::unlink((state.top + "/B").c_str());
    make_maildir(state.top + "/B");
    return 1;
}

// The type of an entry is taken from the listing.
TEST(WalkTypes, AFileThatBecomesAFolderIsPassedBy) {
    const TempDir dir;
    make_maildir(dir / "A");
    testing_files::write(dir / "B", "a file");
    State state{dir.path(), {}};
    EXPECT_EQ(tsl_visit_folders(dir.path().c_str(), 1, replace_the_file, &state), 1);
    EXPECT_EQ(state.names, std::vector<std::string>{"A"});
    EXPECT_EQ(tsl_visit_folders(dir.path().c_str(), 1, replace_the_file, &state), 2);
}

}  // namespace
