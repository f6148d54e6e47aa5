// The walk over trees of mail folders.
#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/resource.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "testing/files.h"
#include "testing/processes.h"

namespace {

using testing_files::list;
using testing_files::make_dirs;
using testing_files::make_maildir;
using testing_files::status;
using testing_files::TempDir;
using testing_files::write;

std::string working_directory() {
    char path[PATH_MAX];
    return ::getcwd(path, sizeof path) == nullptr ? "none" : path;
}

struct Visited {
    std::string name;
    ino_t inode;
    std::string directory;
    bool operator==(const Visited&) const = default;
};

void PrintTo(const Visited& v, std::ostream* out) {
    *out << v.name << " (" << v.inode << ") in " << v.directory;
}

// Remembers what it is called for; `also` is done at the end of each visit and gives the result.
struct Record {
    std::vector<Visited> visits;
    std::function<int(const std::string&)> also = [](const std::string&) { return 1; };

    static int visit(const char* name, const struct stat* st, void* arg) {
        auto& record = *static_cast<Record*>(arg);
        record.visits.push_back({name, st->st_ino, working_directory()});
        return record.also(name);
    }
    std::vector<std::string> names() const {
        std::vector<std::string> result;
        for (const auto& visited : visits) result.push_back(visited.name);
        return result;
    }
};

using Names = std::vector<std::string>;

// In every case the working directory is restored, and no descriptor is left open.
class Walk : public testing::Test {
  protected:
    void TearDown() override {
        EXPECT_EQ(status(".").st_ino, before_.st_ino);
        EXPECT_EQ(testing_files::open_descriptors(), open_);
        EXPECT_EQ(::chdir("/"), 0);
    }
    void move_to(const std::string& dir) {
        ASSERT_EQ(::chdir(dir.c_str()), 0);
        before_ = status(".");
    }
    int walk(const std::string& dir, int depth = 1) {
        record_.visits.clear();
        return tsl_visit_folders(dir.c_str(), depth, Record::visit, &record_);
    }
    // The names that a walk from the top visits.
    Names names(const std::string& dir, int depth = 1) {
        const int sum = walk(dir, depth);
        EXPECT_EQ(static_cast<size_t>(sum), record_.visits.size());
        return record_.names();
    }

    struct stat before_ = status(".");
    const size_t open_ = testing_files::open_descriptors();
    const TempDir top_;
    Record record_;
};

TEST_F(Walk, SiblingsInByteOrder) {
    for (const char* name : {"a", "C", "B"}) make_maildir(top_ / name);
    EXPECT_EQ(names(top_.path()), (Names{"B", "C", "a"}));
}

TEST_F(Walk, AFolderBeforeThoseBelowIt) {
    for (const char* name :
         {"Work", "Work/2024", "Work/2024/May", "Work/2023", "Inbox", "Work.x"}) {
        make_maildir(top_ / name);
    }
    EXPECT_EQ(names(top_.path()),
              (Names{"Inbox", "Work", "Work/2023", "Work/2024", "Work/2024/May", "Work.x"}));
}

TEST_F(Walk, WhatIsNoFolderIsPassedBy) {
    for (const char* name : {"cur", "new", "tmp", "Cur", "NEW", "tMp", "cur/x", "Tmp/x"}) {
        make_maildir(top_ / name);
    }
    make_dirs(top_ / "plain");
    make_maildir(top_ / "plain/below");
    write(top_ / "file", "x");
    make_dirs(top_ / "half/cur");
    make_dirs(top_ / "half/new");
    ASSERT_EQ(::symlink("file", (top_ / "link-to-file").c_str()), 0);
    ASSERT_EQ(::symlink("nowhere", (top_ / "link-to-nowhere").c_str()), 0);
    EXPECT_EQ(names(top_.path()), Names{});
    make_maildir(top_ / ".hidden");
    make_maildir(top_ / "curr");
    make_dirs(top_ / "marked/.maildirfolder");
    make_maildir(top_ / "marked/sub");
    EXPECT_EQ(names(top_.path()), (Names{".hidden", "curr", "marked", "marked/sub"}));
}

TEST_F(Walk, NothingToList) {
    write(top_ / "file", "x");
    EXPECT_EQ(walk(top_ / "missing"), 0);
    EXPECT_EQ(walk(top_ / "file"), 0);
    EXPECT_EQ(walk(top_.path()), 0);
    EXPECT_EQ(walk(""), 0);
    EXPECT_EQ(walk(std::string(5000, 'x')), 0);
    EXPECT_EQ(tsl_visit_folders(nullptr, 1, Record::visit, &record_), 0);
    EXPECT_EQ(tsl_visit_folders(top_.path().c_str(), 1, nullptr, nullptr), 0);
    EXPECT_TRUE(record_.visits.empty());
}

TEST_F(Walk, GivesTheRecordAndTheDirectoryOfTheFolder) {
    make_maildir(top_ / "A/B/C");
    make_maildir(top_ / "A/B");
    make_maildir(top_ / "A");
    move_to("/usr");
    walk(top_.path());
    const std::vector<Visited> expected = {
        {"A", status(top_ / "A").st_ino, top_.path()},
        {"A/B", status(top_ / "A/B").st_ino, top_ / "A"},
        {"A/B/C", status(top_ / "A/B/C").st_ino, top_ / "A/B"},
    };
    EXPECT_EQ(record_.visits, expected);
}

TEST_F(Walk, SumsWhatTheVisitorReturns) {
    for (const char* name : {"a", "b", "c"}) make_maildir(top_ / name);
    record_.also = [](const std::string& name) { return name == "b" ? -5 : 100; };
    EXPECT_EQ(walk(top_.path()), 195);
    record_.also = [](const std::string&) { return INT_MAX; };
    EXPECT_EQ(walk(top_.path()), INT_MAX - 2);  // 3 * INT_MAX, wrapped
}

TEST_F(Walk, RelativeDirectories) {
    make_maildir(top_ / "mail/Work/2024");
    make_maildir(top_ / "mail/Work");
    move_to(top_.path());
    EXPECT_EQ(names("mail"), (Names{"Work", "Work/2024"}));
    EXPECT_EQ(names("./mail//"), (Names{"Work", "Work/2024"}));
    move_to(top_ / "mail");
    EXPECT_EQ(names("."), (Names{"Work", "Work/2024"}));
    move_to(top_ / "mail/Work");
    EXPECT_EQ(names(".."), (Names{"Work", "Work/2024"}));
}

// A depth of d puts the last d - 1 components of the directory's real path in front.
TEST_F(Walk, PrefixByDepth) {
    make_maildir(top_ / "mail/Work/2024/May/x");
    make_maildir(top_ / "mail/Work/2024/May");
    ASSERT_EQ(::symlink("mail/Work/2024", (top_ / "link").c_str()), 0);
    const std::string path = top_ / "mail/Work/2024";
    const std::string tmp_name = top_.path().substr(5);
    const struct {
        int depth;
        const char* prefix;
        const char* below;
    } rows[] = {
        {1, "", "May/"},
        {2, "2024/", "2024/May/"},
        {3, "Work/2024/", "Work/2024/May/"},
        {4, "mail/Work/2024/", "mail/Work/2024/May/"},
        {0, "", ""},  // the level below counts as 1
        {-1, "", ""},
        {INT_MIN, "", ""},
        {100, "", ""},  // the path has fewer components
        {INT_MAX, "", ""},
    };
    for (const auto& row : rows) {
        const Names expected = {row.prefix + std::string("May"), row.below + std::string("x")};
        EXPECT_EQ(names(path, row.depth), expected) << row.depth;
        EXPECT_EQ(names(top_ / "link", row.depth), expected) << row.depth;
    }
    // all components, and one more than the path has
    EXPECT_EQ(names(path, 6)[0], "tmp/" + tmp_name + "/mail/Work/2024/May");
    EXPECT_EQ(names(path, 7)[0], "May");
    EXPECT_EQ(names(path, 6)[1], "tmp/" + tmp_name + "/mail/Work/2024/May/x");
}

// "/" ends in a slash: its last component is empty.
TEST_F(Walk, PrefixInTheRootDirectory) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can be somebody else";
    testing_processes::Child child([&] {
        make_maildir(top_ / "Work/2024");
        make_maildir(top_ / "Work");
        if (::chroot(top_.path().c_str()) != 0 || ::chdir("/") != 0) return 77;
        if (names("/", 1) != Names{"Work", "Work/2024"}) return 1;
        if (names("/", 2) != Names{"/Work", "2024"}) return 2;
        return names("/", 3) == Names{"Work", "2024"} ? 0 : 3;
    });
    EXPECT_EQ(child.wait(), 0);
}

// Below a link the names come from the real path, and the working directory is there.
TEST_F(Walk, LinksToFolders) {
    make_maildir(top_ / "elsewhere/x/Sub");
    make_maildir(top_ / "elsewhere/x");
    make_maildir(top_ / "mail/A");
    ASSERT_EQ(::symlink("../elsewhere/x", (top_ / "mail/L").c_str()), 0);
    ASSERT_EQ(::symlink("../../elsewhere/x", (top_ / "mail/A/L").c_str()), 0);
    walk(top_ / "mail");
    const ino_t x = status(top_ / "elsewhere/x").st_ino;
    const ino_t sub = status(top_ / "elsewhere/x/Sub").st_ino;
    const std::vector<Visited> expected = {
        {"A", status(top_ / "mail/A").st_ino, top_ / "mail"},
        {"A/L", x, top_ / "mail/A"},
        {"elsewhere/x/Sub", sub, top_ / "elsewhere/x"},
        {"L", x, top_ / "mail"},
        {"x/Sub", sub, top_ / "elsewhere/x"},
    };
    EXPECT_EQ(record_.visits, expected);
}

// A directory that the walk is inside of is visited, but not entered again.
TEST_F(Walk, CirclesOfLinks) {
    make_maildir(top_ / "mail/A/B");
    make_maildir(top_ / "mail/A");
    make_maildir(top_ / "mail");
    ASSERT_EQ(::symlink("..", (top_ / "mail/A/B/to-a").c_str()), 0);
    ASSERT_EQ(::symlink("../../..", (top_ / "mail/A/B/to-top").c_str()), 0);
    ASSERT_EQ(::symlink(".", (top_ / "mail/A/self").c_str()), 0);
    make_maildir(top_.path());
    EXPECT_EQ(names(top_ / "mail"),
              (Names{"A", "A/B", "A/B/to-a", "A/B/to-top", "mail", "A/self"}));
    // Here the walk meets the top at a depth for which its path just has enough components.
    const std::string real = top_.path().substr(1);
    EXPECT_EQ(names(top_ / "mail/A"),
              (Names{"B", "B/to-a", "B/to-top", real + "/mail", real + "/mail/A", "self"}));
}

// ---- Depth --------------------------------------------------------------------------------------

// Makes nested folders "d" below a directory, beyond the length of any path.
void make_deep(const std::string& dir, int levels, const std::string& name = "d") {
    int fd = ::open(dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    for (int i = 0; i < levels; ++i) {
        ASSERT_EQ(::mkdirat(fd, name.c_str(), 0777), 0);
        const int next = ::openat(fd, name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        ASSERT_GE(next, 0);
        ::close(fd);
        fd = next;
        ASSERT_EQ(::mkdirat(fd, ".maildirfolder", 0777), 0);
    }
    ::close(fd);
}

// Makes a folder whose path may be too long.
void make_folder_in(const std::string& dir, const std::string& name) { make_deep(dir, 1, name); }

void limit_descriptors(rlim_t count) {
    const struct rlimit limit = {count, count};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
}

// The levels of the path of a directory "d/d/d..." that are shorter than a path may be.
int levels_with_a_path(const std::string& top) {
    return static_cast<int>((PATH_MAX - 1 - top.size()) / 2);
}

// Folders are visited as long as the directory that holds them has a path; back at the top the walk
// goes on. Neither descriptors nor stack grow with the depth.
TEST_F(Walk, AsDeepAsPathsGo) {
    make_deep(top_.path(), 2500);
    make_maildir(top_ / "e");
    const int expected = levels_with_a_path(top_.path()) + 1 + 1;
    testing_processes::Child child([&] {
        limit_descriptors(open_ + 20);
        int sum = 0;
        testing_processes::run_with_stack(256 * 1024, [&] {
            const auto one = [](const char*, const struct stat*, void*) { return 1; };
            sum = tsl_visit_folders(top_.path().c_str(), 1, one, nullptr);
        });
        return sum == expected ? 0 : 1;
    });
    EXPECT_EQ(child.wait(), 0);
}

TEST_F(Walk, DeepNames) {
    make_deep(top_.path(), 100);
    make_maildir(top_ / "d/d/e");
    size_t most_descriptors = 0;
    record_.also = [&](const std::string&) {
        most_descriptors = std::max(most_descriptors, testing_files::open_descriptors());
        return 1;
    };
    const auto all = names(top_.path());
    EXPECT_LT(most_descriptors, open_ + 20);
    ASSERT_EQ(all.size(), 101u);
    EXPECT_EQ(all[99].size(), 199u);
    EXPECT_EQ(all[100], "d/d/e");
    EXPECT_EQ(record_.visits[100].directory, top_ / "d/d");
}

// Three descriptors are enough: the way back, the level and the directory that is being read.
TEST_F(Walk, WithThreeDescriptors) {
    make_deep(top_.path(), 40);
    for (const char* name : {"d/d/e", "d/d/d/d/d/d/d/d/d/d/d/d/d/d/d/d/d/d/d/d/e", "e"}) {
        make_maildir(top_ / name);
    }
    testing_processes::Child child([&] {
        limit_descriptors(open_ + 3);
        return walk(top_.path()) == 43 ? 0 : 1;
    });
    EXPECT_EQ(child.wait(), 0);
}

// Behind many links ".." is not the way back.
TEST_F(Walk, BackThroughLinks) {
    constexpr int kLinks = 40;
    for (int i = 0; i < kLinks; ++i) {
        const std::string folder = top_ / ("f" + std::to_string(i));
        make_maildir(folder + "/z");
        make_dirs(folder + "/.maildirfolder");
        if (i + 1 < kLinks) {
            ASSERT_EQ(
                ::symlink(("../f" + std::to_string(i + 1)).c_str(), (folder + "/next").c_str()), 0);
        }
    }
    EXPECT_EQ(walk(top_ / "f0"), kLinks - 1 + kLinks);
    EXPECT_EQ(record_.visits.back().directory, top_ / "f0");
}

// A prefix makes names longer than the paths of the directories; one longer than a path can be is
// left out.
TEST_F(Walk, TheLongestNames) {
    std::string path = top_.path();
    while (path.size() < 3900) {
        path += '/' + std::string(199, 'p');
        make_dirs(path);
    }
    path += '/' + std::string(4093 - path.size() - 1, 'q');
    make_dirs(path);
    make_folder_in(path, "f");
    EXPECT_EQ(names(path), Names{"f"});
    const int all = static_cast<int>(std::count(path.begin(), path.end(), '/')) + 1;
    EXPECT_EQ(names(path, all), Names{path.substr(1) + "/f"});
    // "gg" has no path any more; without the first slash it is short enough for a name, "hhh" is
    // not
    make_folder_in(path, "gg");
    make_folder_in(path, "hhh");
    EXPECT_EQ(names(path), (Names{"f", "gg", "hhh"}));
    EXPECT_EQ(names(path, all), (Names{path.substr(1) + "/f", path.substr(1) + "/gg"}));
}

// ---- Working directories ------------------------------------------------------------------------

TEST_F(Walk, FromAWorkingDirectoryWithoutAPath) {
    make_maildir(top_ / "mail/A");
    make_dirs(top_ / "gone");
    move_to(top_ / "gone");
    ASSERT_EQ(::rmdir((top_ / "gone").c_str()), 0);
    EXPECT_EQ(walk(top_ / "mail"), 0);
    EXPECT_EQ(walk("."), 0);
    EXPECT_EQ(working_directory(), "none");
}

TEST_F(Walk, FromAWorkingDirectoryWithTooLongAPath) {
    make_maildir(top_ / "mail/A");
    const int with_a_path = levels_with_a_path(top_.path());
    make_deep(top_.path(), with_a_path + 1);
    move_to(top_.path());
    for (int i = 0; i < with_a_path; ++i) ASSERT_EQ(::chdir("d"), 0);
    move_to(".");
    EXPECT_EQ(walk(top_ / "mail"), 1);
    move_to("d");
    EXPECT_EQ(walk(top_ / "mail"), 0);
    EXPECT_EQ(walk("."), 0);
    EXPECT_EQ(working_directory(), "none");
}

// The visitor's exception passes, and the working directory is put back.
TEST_F(Walk, VisitorsThatThrow) {
    make_maildir(top_ / "A/B");
    make_maildir(top_ / "A");
    move_to("/usr");
    record_.also = [](const std::string& name) -> int { return name == "A/B" ? throw 42 : 0; };
    EXPECT_THROW(walk(top_.path()), int);
    EXPECT_EQ(working_directory(), "/usr");
    record_.also = [](const std::string&) -> int { throw std::bad_alloc(); };
    EXPECT_THROW(walk(top_.path()), std::bad_alloc);
    EXPECT_EQ(working_directory(), "/usr");
}

// ---- Folders that change during the walk --------------------------------------------------------

TEST_F(Walk, VisitorsThatChangeTheTree) {
    for (const char* name : {"A", "A/x", "B", "B/x", "C", "D", "E", "F/y"})
        make_maildir(top_ / name);
    make_maildir(top_ / "F");
    record_.also = [&](const std::string& name) {
        if (name == "A") {
            EXPECT_EQ(::rename("A", ".deleted.A.1"), 0);  // gone before it is entered
            make_maildir("A2");                           // the listing has been made
        }
        if (name == "B") make_maildir("B/new-one");
        if (name == "C") {
            EXPECT_EQ(::rename("D", ".deleted.D.1"), 0);
        }
        if (name == "E") {
            EXPECT_EQ(::rename("E", ".deleted.E.1"), 0);
            EXPECT_EQ(::symlink("F", "E"), 0);
        }
        return 1;
    };
    EXPECT_EQ(names(top_.path()),
              (Names{"A", "B", "B/new-one", "B/x", "C", "E", "F/y", "F", "F/y"}));
}

// A level that was closed on the way down ends, if it is another directory on the way back.
TEST_F(Walk, ALevelThatWasReplaced) {
    make_deep(top_.path(), 40);
    make_maildir(top_ / "d/z");
    make_maildir(top_ / "z");
    record_.also = [&](const std::string& name) {
        if (name.size() != 79) return 1;
        // the 40th: make another d/ in the place of the first, which ".." no longer leads to
        EXPECT_EQ(::rename((top_ / "d/d").c_str(), (top_ / "moved").c_str()), 0);
        EXPECT_EQ(::rename((top_ / "d").c_str(), (top_ / "old").c_str()), 0);
        make_maildir(top_ / "d/z");
        return 1;
    };
    const auto visited = names(top_.path());
    EXPECT_EQ(visited.size(), 41u);
    EXPECT_EQ(visited.back(), "z");
}

// ---- Permissions --------------------------------------------------------------------------------

TEST_F(Walk, UnreadableFolders) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can be somebody else";
    for (const char* name : {"A", "A/x", "B", "B/x", "C", "C/x", "D"}) make_maildir(top_ / name);
    ASSERT_EQ(::chmod(top_.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod((top_ / "A").c_str(), 0711), 0);  // a folder, but its entries are not shown
    ASSERT_EQ(::chmod((top_ / "B").c_str(), 0744), 0);  // not seen to be a folder
    write(top_ / "C/x/.maildirfolder", "");
    ASSERT_EQ(::chmod((top_ / "C/x").c_str(), 0), 0);
    move_to("/usr");
    EXPECT_EQ(testing_processes::run_unprivileged([&] {
                  const Names seen = names(top_.path());
                  return seen == Names{"A", "C", "D"} && working_directory() == "/usr" ? 0 : 1;
              }),
              0);
}

TEST_F(Walk, TopThatCannotBeEntered) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can be somebody else";
    make_maildir(top_ / "closed/A");
    ASSERT_EQ(::chmod(top_.path().c_str(), 0755), 0);
    for (const mode_t mode : {0u, 0711u, 0744u}) {
        ASSERT_EQ(::chmod((top_ / "closed").c_str(), mode), 0);
        EXPECT_EQ(testing_processes::run_unprivileged([&] { return walk(top_ / "closed"); }), 0);
    }
}

// A daemon that was started in a directory of root and has given up its rights: it may not search
// its working directory and cannot return to it.
TEST_F(Walk, WorkingDirectoryWithoutAWayBack) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can be somebody else";
    make_maildir(top_ / "mail/A");
    make_maildir(top_ / "mail/A/x");
    make_maildir(top_ / "mail/B");
    make_dirs(top_ / "empty");
    make_dirs(top_ / "mine/mail");
    ASSERT_EQ(::chmod(top_.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod((top_ / "mine").c_str(), 0700), 0);
    move_to(top_ / "mine");
    EXPECT_EQ(testing_processes::run_unprivileged([&] {
                  if (walk("mail") != 0 || walk(top_ / "missing") != 0) return 1;
                  if (walk(top_ / "empty") != 0 || working_directory() != top_ / "mine") return 2;
                  if (names(top_ / "mail") != Names{"A", "A/x", "B"}) return 3;
                  if (record_.visits[1].directory != top_ / "mail/A") return 4;
                  return working_directory() == top_ / "mail" ? 0 : 5;
              }),
              0);
}

// The same with a visitor that throws.
TEST_F(Walk, WithoutAWayBackAThrowLeavesTheTop) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can be somebody else";
    make_maildir(top_ / "mail/A/x");
    make_maildir(top_ / "mail/A");
    make_dirs(top_ / "mine");
    ASSERT_EQ(::chmod(top_.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod((top_ / "mine").c_str(), 0700), 0);
    move_to(top_ / "mine");
    record_.also = [](const std::string& name) -> int { return name == "A/x" ? throw 42 : 0; };
    EXPECT_EQ(testing_processes::run_unprivileged([&] {
                  EXPECT_THROW(walk(top_ / "mail"), int);
                  return working_directory() == top_ / "mail" ? 0 : 1;
              }),
              0);
}

// ---- The same, level by level with the working directory ---------------------------------------

class LiteralWalk {
  public:
    std::vector<Visited> visits;

    int walk(const char* dir, int depth) {
        struct dirent** entries;
        const int count = ::scandir(dir, &entries, nullptr, ::alphasort);
        if (count < 1) return 0;
        const std::string saved = working_directory();
        EXPECT_EQ(::chdir(dir), 0);
        const std::string here = working_directory();
        const struct stat self = status(".");
        path_.emplace_back(self.st_dev, self.st_ino);
        int sum = 0;
        for (int i = 0; i < count; ++i) sum += take(entries[i], here, depth);
        path_.pop_back();
        EXPECT_EQ(::chdir(saved.c_str()), 0);
        for (int i = 0; i < count; ++i) std::free(entries[i]);
        std::free(entries);
        return sum;
    }

  private:
    int take(const struct dirent* entry, const std::string& here, int depth) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") return 0;
        for (const char* sub : {"cur", "new", "tmp"}) {
            if (::strcasecmp(name.c_str(), sub) == 0) return 0;
        }
        struct stat st;
        if (::stat(name.c_str(), &st) != 0 || tsl_is_mail_folder(name.c_str(), &st) == 0) return 0;
        visits.push_back({with_prefix(here, depth - 1, name), st.st_ino, working_directory()});
        const std::pair identity(st.st_dev, st.st_ino);
        if (std::find(path_.begin(), path_.end(), identity) != path_.end()) return 1;
        return 1 + walk(name.c_str(), depth + 1);
    }
    static std::string with_prefix(const std::string& here, int count, const std::string& name) {
        if (count < 1 || std::count(here.begin(), here.end(), '/') < count) return name;
        size_t slash = here.size();
        for (int i = 0; i < count; ++i) slash = here.rfind('/', slash - 1);
        return here.substr(slash + 1) + "/" + name;
    }
    std::vector<std::pair<dev_t, ino_t>> path_;
};

// A tree of folders, plain directories, files and links to any of them.
class RandomTree {
  public:
    RandomTree(std::mt19937& random, const std::string& top) : random_(random), dirs_{top} {
        for (int i = 0; i < 150; ++i) add();
    }
    const std::vector<std::string>& dirs() const { return dirs_; }

  private:
    unsigned below(size_t n) { return static_cast<unsigned>(random_() % n); }
    void add() {
        static const char* const kNames[] = {"a",   "B",   "c c",      ".h",  "Zz", "cur", "CUR",
                                             "New", "tmp", "\xc3\xa4", "a.b", "ab", "0",   "_"};
        const std::string path =
            dirs_[below(dirs_.size())] + "/" + kNames[below(std::size(kNames))];
        if (testing_files::exists(path)) return;
        switch (below(8)) {
            case 0:
                make_dirs(path);
                break;
            case 1:
                write(path, "x");
                return;
            case 2:
                EXPECT_EQ(::symlink(dirs_[below(dirs_.size())].c_str(), path.c_str()), 0);
                return;
            case 3:
                make_dirs(path + "/.maildirfolder");
                break;
            default:
                make_maildir(path);
        }
        dirs_.push_back(path);
    }
    std::mt19937& random_;
    std::vector<std::string> dirs_;
};

TEST_F(Walk, AgreesWithTheLiteralWalkOnRandomTrees) {
    constexpr unsigned kSeed = 31415;
    RecordProperty("seed", kSeed);
    std::mt19937 random(kSeed);
    size_t visits = 0;
    size_t repeated = 0;
    for (int round = 0; round < 100; ++round) {
        const std::string top = top_ / ("m/n/t" + std::to_string(round));
        make_dirs(top);
        const RandomTree tree(random, top);
        for (int i = 0; i < 6; ++i) {
            const auto pick = [&] { return tree.dirs()[random() % tree.dirs().size()]; };
            std::string dir = i == 0 ? top : pick();
            const int depth = i < 2 ? 1 : static_cast<int>(random() % 9) - 1;
            move_to(i % 2 == 0 ? "/" : dir.substr(0, dir.rfind('/')));
            if (i % 2 != 0) dir = dir.substr(dir.rfind('/') + 1);
            LiteralWalk literal;
            const int expected = literal.walk(dir.c_str(), depth);
            ASSERT_EQ(walk(dir, depth), expected) << dir << " seed " << kSeed;
            ASSERT_EQ(record_.visits, literal.visits) << dir << " seed " << kSeed;
            visits += literal.visits.size();
            std::set<ino_t> folders;
            for (const auto& visited : literal.visits) folders.insert(visited.inode);
            repeated += folders.size() < literal.visits.size();
        }
    }
    EXPECT_GT(visits, 4000u);
    EXPECT_GT(repeated, 50u);  // walks that reached a folder more than once, by links
}

}  // namespace
