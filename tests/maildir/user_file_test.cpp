// Removing a user's files by kind. This program defines tsm_clean_dir itself, as a process of an
// appliance may.
#include <dlfcn.h>
#include <tessaly/maillist.h>
#include <tessaly/mailstore.h>
#include <tessaly/support.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <string>
#include <utility>
#include <vector>

#include "testing/files.h"
#include "testing/processes.h"

namespace {

using testing_files::exists;
using testing_files::list;
using testing_files::make_dirs;
using testing_files::make_maildir;
using testing_files::read;
using testing_files::write;
using Names = std::vector<std::string>;

std::vector<std::pair<std::string, int>> cleaned;  // calls of tsm_clean_dir
bool refuse_to_clean = false;

}  // namespace

int tsm_clean_dir(const char* path, int flags) {
    cleaned.emplace_back(path, flags);
    if (refuse_to_clean) return 7;
    static const auto real =
        reinterpret_cast<int (*)(const char*, int)>(::dlsym(RTLD_NEXT, "tsm_clean_dir"));
    return real(path, flags);
}

namespace {

const std::string kDomain = "/var/spool/home/site.test";
const std::string kAnn = kDomain + "/ann~site.test";
constexpr char kAddress[] = "Ann+Tag@Site.Test";

std::string path_of(int kind, const char* address = kAddress) {
    char path[PATH_MAX];
    mailuser_filename(kind, path, sizeof path, address);
    return path;
}

std::string list_path(const char* user, const char* name) {
    char path[PATH_MAX];
    mail_list_get_file_name(user, name, path, sizeof path, MAIL_LIST_USER);
    return path;
}

class UserFile : public testing::Test {
  protected:
    void SetUp() override {
        tsm_delete_path("/var/spool/home");
        tsm_delete_path("/var/spool/home.local");
        cleaned.clear();
        refuse_to_clean = false;
    }
    void TearDown() override { EXPECT_EQ(testing_files::open_descriptors(), open_); }
    const size_t open_ = testing_files::open_descriptors();

    // Ann is a primary address to bob and carl, and a secondary one to dora.
    static void relate() {
        write(list_path(kAddress, "primaryaddr"), "bob@site.test\n\ncarl@other.test\nnobody@x.y\n");
        write(list_path(kAddress, "secondaryaddr"), "dora@site.test\n");
        write(list_path("bob@site.test", "secondaryaddr"),
              "x@y.z\nANN+tag@site.test\nann@site.test\nann+Tag@Site.test\n");
        write(list_path("bob@site.test", "primaryaddr"), "ann+Tag@site.test\n");
        write(list_path("carl@other.test", "secondaryaddr"), "ann+Tag@site.test\n");
        write(list_path("dora@site.test", "primaryaddr"), "ann+Tag@site.test\nx@y.z\n");
        write(list_path("dora@site.test", "secondaryaddr"), "ann+Tag@site.test\n");
    }
    static bool left_by_bob_and_carl() {
        const bool bob =
            read(list_path("bob@site.test", "secondaryaddr")) == "x@y.z\nann@site.test\n";
        return bob && read(list_path("carl@other.test", "secondaryaddr")).empty();
    }
    static bool left_by_dora() {
        return read(list_path("dora@site.test", "primaryaddr")) == "x@y.z\n";
    }
    // The opposite lists stay as they are.
    static void expect_opposite_lists_untouched() {
        EXPECT_EQ(read(list_path("bob@site.test", "primaryaddr")), "ann+Tag@site.test\n");
        EXPECT_EQ(read(list_path("dora@site.test", "secondaryaddr")), "ann+Tag@site.test\n");
    }
};

TEST_F(UserFile, FilesThatAreUnlinked) {
    for (const int kind : {0, 1, 2, 7, 8, 15}) {
        SCOPED_TRACE(kind);
        const std::string path = path_of(kind);
        EXPECT_EQ(tsl_delete_user_file(kind, kAddress), 0);
        write(path, "x");
        write(path + ".other", "x");
        EXPECT_EQ(tsl_delete_user_file(kind, kAddress), 0);
        EXPECT_FALSE(exists(path));
        EXPECT_TRUE(exists(path + ".other"));
        EXPECT_EQ(tsl_delete_user_file(kind, kAddress), 0);
    }
    EXPECT_TRUE(cleaned.empty());
}

// A folder in the place of the file is refused, the folder "Bulk" always.
TEST_F(UserFile, FilesThatAreDirectories) {
    EXPECT_EQ(tsl_delete_user_file(MUF_BULK, kAddress), 0);
    for (const int kind : {0, 7, 10, 15}) {
        make_maildir(path_of(kind));
        EXPECT_EQ(tsl_delete_user_file(kind, kAddress), -1) << kind;
        EXPECT_EQ(list(path_of(kind)).size(), 3u);
    }
}

TEST_F(UserFile, PrimaryAddresses) {
    relate();
    EXPECT_EQ(tsl_delete_user_file(MUF_PRIMARY_ADDR, kAddress), 0);
    EXPECT_TRUE(left_by_bob_and_carl());
    EXPECT_FALSE(left_by_dora());
    EXPECT_FALSE(exists(path_of(MUF_PRIMARY_ADDR)));
    EXPECT_TRUE(exists(path_of(MUF_SECONDARY_ADDR)));
    expect_opposite_lists_untouched();
    EXPECT_TRUE(cleaned.empty());
}

TEST_F(UserFile, SecondaryAddresses) {
    relate();
    EXPECT_EQ(tsl_delete_user_file(MUF_SECONDARY_ADDR, kAddress), 0);
    EXPECT_FALSE(left_by_bob_and_carl());
    EXPECT_TRUE(left_by_dora());
    EXPECT_TRUE(exists(path_of(MUF_PRIMARY_ADDR)));
    EXPECT_FALSE(exists(path_of(MUF_SECONDARY_ADDR)));
    expect_opposite_lists_untouched();
}

TEST_F(UserFile, ListsThatAreMissing) {
    make_dirs(path_of(MUF_PREFPATH));
    EXPECT_EQ(tsl_delete_user_file(MUF_PRIMARY_ADDR, kAddress), 0);
    EXPECT_EQ(tsl_delete_user_file(MUF_SECONDARY_ADDR, kAddress), 0);
    EXPECT_EQ(list(path_of(MUF_PREFPATH)),
              Names{});  // there is not even a lock file: the lists were not looked for
    write(path_of(MUF_PRIMARY_ADDR), "");
    EXPECT_EQ(tsl_delete_user_file(MUF_PRIMARY_ADDR, kAddress), 0);
    EXPECT_FALSE(exists(path_of(MUF_PRIMARY_ADDR)));
}

// Home and preference directory: first the partners' lists, then the content of the directory.
TEST_F(UserFile, Directories) {
    const struct {
        int kind;
        bool leaves;
        const char* path;
        Names left;  // in the home
    } rows[] = {
        {MUF_HOMEPATH, true, "", {}},
        {MUF_PREFPATH, true, "/pref", {"mail", "pref"}},
        {MUF_MAILPATH, false, "/mail", {"mail", "pref"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.kind);
        SetUp();
        relate();
        write(kAnn + "/mail/Inbox/cur/message", "x");
        EXPECT_EQ(tsl_delete_user_file(row.kind, kAddress), 0);
        EXPECT_EQ(left_by_bob_and_carl(), row.leaves);
        EXPECT_EQ(left_by_dora(), row.leaves);
        expect_opposite_lists_untouched();
        EXPECT_EQ(cleaned, (decltype(cleaned){{kAnn + row.path, 0}}));
        EXPECT_EQ(list(kAnn), row.left);
        EXPECT_EQ(list(kAnn + row.path), Names{});
        EXPECT_EQ(tsl_delete_user_file(row.kind, kAddress), 0);
    }
}

// A linked home or preference directory: the user leaves the lists of the first relation. Then the
// link is removed, so that nothing else can be reached.
TEST_F(UserFile, LinkedDirectories) {
    const std::string elsewhere = "/var/spool/elsewhere";
    for (const int kind : {MUF_HOMEPATH, MUF_PREFPATH}) {
        SCOPED_TRACE(kind);
        SetUp();
        relate();
        const std::string path = path_of(kind);
        ASSERT_EQ(::rename(path.c_str(), elsewhere.c_str()), 0);
        ASSERT_EQ(::symlink(elsewhere.c_str(), path.c_str()), 0);
        write(elsewhere + "/kept", "x");
        EXPECT_EQ(tsl_delete_user_file(kind, kAddress), 0);
        EXPECT_FALSE(exists(path));
        EXPECT_TRUE(left_by_bob_and_carl());
        EXPECT_FALSE(left_by_dora());
        EXPECT_TRUE(cleaned.empty());
        EXPECT_TRUE(exists(elsewhere + "/kept"));
        EXPECT_EQ(tsm_delete_path(elsewhere.c_str()), 0);
    }
}

// A mail root and a local home are emptied where the link leads.
TEST_F(UserFile, LinkedMailRoots) {
    const std::string elsewhere = "/var/spool/elsewhere";
    for (const int kind : {MUF_MAILPATH, MUF_LOCAL_HOMEPATH}) {
        const std::string path = path_of(kind);
        write(elsewhere + "/file", "x");
        make_dirs(path.substr(0, path.rfind('/')));
        ASSERT_EQ(::symlink(elsewhere.c_str(), path.c_str()), 0);
        EXPECT_EQ(tsl_delete_user_file(kind, kAddress), 0);
        EXPECT_TRUE(exists(path));
        EXPECT_EQ(list(elsewhere), Names{});
    }
}

TEST_F(UserFile, MissingDirectories) {
    for (const int kind : {4, 5, 11, 30}) EXPECT_EQ(tsl_delete_user_file(kind, kAddress), 0);
    EXPECT_TRUE(cleaned.empty());
    EXPECT_FALSE(exists("/var/spool/home"));
}

TEST_F(UserFile, LocalHome) {
    relate();
    const std::string local = "/var/spool/home.local/site.test/ann~site.test";
    write(local + "/mail/file", "x");
    write(kAnn + "/file", "x");
    EXPECT_EQ(tsl_delete_user_file(MUF_LOCAL_HOMEPATH, kAddress), 0);
    EXPECT_EQ(cleaned, (decltype(cleaned){{local, 0}}));
    EXPECT_EQ(list(local), Names{});
    EXPECT_TRUE(exists(kAnn + "/file"));
    EXPECT_FALSE(left_by_dora());
}

TEST_F(UserFile, DirectoriesThatCannotBeCleaned) {
    relate();
    refuse_to_clean = true;
    EXPECT_EQ(tsl_delete_user_file(MUF_HOMEPATH, kAddress), -1);
    EXPECT_TRUE(left_by_bob_and_carl() && left_by_dora());  // is not taken back
    EXPECT_EQ(tsl_delete_user_file(MUF_MAILPATH, kAddress), 0);
    make_dirs(path_of(MUF_MAILPATH));
    EXPECT_EQ(tsl_delete_user_file(MUF_MAILPATH, kAddress), -1);
}

TEST_F(UserFile, OtherKindsDoNothing) {
    relate();
    for (const int kind : {3,  6,  9,  12, 16, 17, 18, 19, 20, 21,      22,     23,
                           24, 25, 26, 27, 28, 29, 31, 32, -1, INT_MAX, INT_MIN}) {
        SCOPED_TRACE(kind);
        const std::string path = path_of(kind);
        const bool is_file = !path.empty() && kind != MUF_HOME_PARENT;
        if (is_file) write(path, "x");
        EXPECT_EQ(tsl_delete_user_file(kind, kAddress), 0);
        EXPECT_TRUE(path.empty() || exists(path));
        if (is_file) ::unlink(path.c_str());
    }
    EXPECT_TRUE(cleaned.empty());
    EXPECT_FALSE(left_by_bob_and_carl() || left_by_dora());
}

TEST_F(UserFile, BadAddresses) {
    EXPECT_EQ(tsl_delete_user_file(7, nullptr), -1);
    EXPECT_EQ(tsl_delete_user_file(7, ""), -1);
    const std::string huge = std::string(1 << 20, 'a') + "@site.test";
    for (const int kind : {0, 4, 5, 11, 13, 14, 30}) {
        EXPECT_EQ(tsl_delete_user_file(kind, huge.c_str()), 0);
    }
}

TEST_F(UserFile, WithoutPermission) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can be somebody else";
    write(path_of(MUF_QUOTA_WARNING_FLAG), "x");
    EXPECT_EQ(testing_processes::run_unprivileged([] {
                  return tsl_delete_user_file(MUF_QUOTA_WARNING_FLAG, kAddress) == -1 ? 0 : 1;
              }),
              0);
    EXPECT_TRUE(exists(path_of(MUF_QUOTA_WARNING_FLAG)));
}

}  // namespace
