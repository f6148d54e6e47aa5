// The walk when setting or reading the working directory fails. The folders of that level are not
// visited, the others are, and the caller's working directory is restored.
#include <limits.h>
#include <sys/wait.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <string>
#include <vector>

#include "fault/calls.h"
#include "fault/injector.h"
#include "testing/files.h"

namespace {

using Names = std::vector<std::string>;

constexpr char kBefore[] = "/usr/lib";
constexpr int kMovedAway = 1, kOtherNames = 2, kWrongSum = 3;

// Remembers the name if the working directory holds the folder.
int visit(const char* name, const struct stat* st, void* names) {
    const std::string entry = std::string(name).substr(std::string(name).rfind('/') + 1);
    struct stat here;
    const bool is_here = ::stat(entry.c_str(), &here) == 0 && here.st_ino == st->st_ino;
    static_cast<Names*>(names)->push_back(is_here ? name : "not here");
    return 1;
}

// Whether `some` are names of `all`, in that order.
bool are_in_order(const Names& some, const Names& all) {
    auto at = all.begin();
    return std::all_of(some.begin(), some.end(), [&](const std::string& name) {
        at = std::find(at, all.end(), name);
        return at != all.end();
    });
}

std::string working_directory() {
    char path[PATH_MAX];
    return ::getcwd(path, sizeof path) == nullptr ? "none" : path;
}

class WalkFaults : public testing::Test {
  protected:
    WalkFaults() {
        for (const auto& name : kFolders) testing_files::make_maildir(mail_ + "/" + name);
        ::symlink("../A", (mail_ + "/B/to-a").c_str());
    }

    // Walks in a process whose k-th counted system call fails.
    fault::Trace walk(const fault::Fault& fault) const {
        return fault::run(
            [this] {
                Names names;
                if (::chdir(kBefore) != 0) return -1;
                fault::begin();
                const int sum = tsl_visit_folders(mail_.c_str(), 1, visit, &names);
                fault::end();
                if (working_directory() != kBefore) return kMovedAway;
                if (!are_in_order(names, kVisits)) return kOtherNames;
                return sum == static_cast<int>(names.size()) ? 0 : kWrongSum;
            },
            fault);
    }

    const Names kFolders = {"A", "A/a", "A/a/b", "B", "B/c", "C"};
    // Behind the link names come from the real path.
    const Names kVisits = {"A",      "A/a",      "A/a/b",      "B", "B/c",
                           "B/to-a", "mail/A/a", "mail/A/a/b", "C"};
    const testing_files::TempDir top_;
    const std::string mail_ = top_ / "mail";
};

TEST_F(WalkFaults, OfTheWorkingDirectory) {
    const fault::Trace clean = walk({});
    ASSERT_EQ(WEXITSTATUS(clean.status), 0);
    long last_move = 0;
    std::multiset<std::string> failed;
    for (long k = 1; k <= std::ssize(clean.calls); ++k) {
        if (fault::name(clean.calls[static_cast<size_t>(k - 1)]) == "fchdir") last_move = k;
    }
    for (long k = 1; k <= std::ssize(clean.calls); ++k) {
        const std::string name = fault::name(clean.calls[static_cast<size_t>(k - 1)]);
        if (name != "fchdir" && name != "getcwd") continue;
        for (const int error : {EIO, EACCES, ENOENT}) {
            const fault::Trace trace = walk({fault::Effect::error, error, k, 1});
            ASSERT_TRUE(WIFEXITED(trace.status));
            // If the last call fails, the process is not back.
            EXPECT_EQ(WEXITSTATUS(trace.status), k == last_move ? kMovedAway : 0)
                << name << ", call " << k << ", " << error;
        }
        failed.insert(name);
    }
    EXPECT_GT(failed.count("fchdir"), 5U);
    EXPECT_GT(failed.count("getcwd"), 1U);
}

// Without a descriptor for the working directory the way back is its path.
TEST_F(WalkFaults, OfTheOpeningOfTheWorkingDirectory) {
    const fault::Trace clean = walk({});
    const auto is_opening = [](const auto& call) { return fault::name(call) == "openat"; };
    const auto first = std::find_if(clean.calls.begin(), clean.calls.end(), is_opening);
    ASSERT_NE(first, clean.calls.end());
    const long k = first - clean.calls.begin() + 1;
    for (const int error : {EMFILE, EACCES}) {
        const fault::Trace trace = walk({fault::Effect::error, error, k, 1});
        ASSERT_TRUE(WIFEXITED(trace.status));
        EXPECT_EQ(WEXITSTATUS(trace.status), 0) << error;
    }
}

}  // namespace
