// Folder tables, tests on names and directories.
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <climits>
#include <iterator>
#include <string>

#include "testing/files.h"
#include "testing/processes.h"

namespace {

using testing_files::make_dirs;
using testing_files::make_maildir;
using testing_files::TempDir;
using testing_files::write;

TEST(SystemFolders, TableInOrder) {
    const char* const expected[] = {"Inbox", "Drafts", "Sent", "Bulk", "Trash", "SecureMail"};
    ASSERT_EQ(tsl_sys_folders_count, 6);
    for (int i = 0; i < 6; ++i) EXPECT_STREQ(tsl_sys_folders[i], expected[i]);
    EXPECT_EQ(tsl_sys_folders[6], nullptr);
}

struct NameRow {
    const char* name;
    int folder;
    int sub_folder;
};

TEST(SystemFolders, NumbersOfNames) {
    const NameRow rows[] = {
        {nullptr, 0, 0},        {"", 0, 0},           {"Inbox", 1, 0},     {"Drafts", 2, 0},
        {"Sent", 3, 0},         {"Bulk", 4, 0},       {"Trash", 5, 0},     {"SecureMail", 6, 0},
        {"inbox", 0, 0},        {"INBOX", 0, 0},      {"Inbox ", 0, 0},    {"Inbo", 0, 0},
        {"Inbox/", 0, 1},       {"Inbox/Work", 0, 1}, {"INBOX/x", 0, 1},   {"inboX/x/y", 0, 1},
        {"Inboxes/x", 0, 0},    {"Inbo/x", 0, 0},     {"drafts/x", 0, 2},  {"Drafts/x", 0, 2},
        {"SENT/x", 0, 3},       {"bulk/x", 0, 4},     {"trash/old", 0, 5}, {"Trash/", 0, 5},
        {"securemail/x", 0, 6}, {"/Inbox/x", 0, 0},   {"x/Inbox/y", 0, 0}, {"Sentinel/x", 0, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name == nullptr ? "NULL" : row.name);
        EXPECT_EQ(tsl_is_system_folder(row.name), row.folder);
        EXPECT_EQ(tsl_is_system_sub_folder(row.name), row.sub_folder);
    }
}

struct ReservedRow {
    const char* name;
    size_t length;
};

constexpr ReservedRow kReserved[] = {
    {".ts_cache", 9},       {".to.be.convert.", 15}, {".uidlast", 8},        {".uidvalidity", 12},
    {".reply", 6},          {".forward", 8},         {".signature", 10},     {".dovecot", 8},
    {".subscriptions", 14}, {".maildirfolder", 14},  {".wmfolder_pref", 14}, {".maildirsize", 12},
};

TEST(ReservedNames, TableInOrder) {
    size_t i = 0;
    for (; i < std::size(kReserved); ++i) {
        EXPECT_STREQ(tsm_sys_folders[i].name, kReserved[i].name);
        EXPECT_EQ(tsm_sys_folders[i].length, kReserved[i].length);
    }
    EXPECT_EQ(tsm_sys_folders[i].name, nullptr);
    EXPECT_EQ(tsm_sys_folders[i].length, 0u);
}

TEST(ReservedNames, EveryNameByItsBeginningInTheLastComponent) {
    for (const auto& row : kReserved) {
        const std::string name = row.name;
        SCOPED_TRACE(name);
        for (const auto& path : {name, name + ".tmp", "a/b/" + name, "/" + name + "x", name + "///",
                                 "Inbox/" + name + "/"}) {
            EXPECT_EQ(tsl_is_reserved_folder(path.c_str()), 1) << path;
            EXPECT_EQ(tsl_is_mbox_folder(path.c_str()), 0) << path;
        }
        std::string upper = name;
        upper[1] = static_cast<char>(upper[1] - 'a' + 'A');
        for (const auto& path : {"x" + name, name + "/x", name.substr(0, name.size() - 1), upper,
                                 "a/" + name + "/b/"}) {
            EXPECT_EQ(tsl_is_reserved_folder(path.c_str()), 0) << path;
            EXPECT_EQ(tsl_is_mbox_folder(path.c_str()), 1) << path;
        }
    }
}

TEST(ReservedNames, PathsWithoutAName) {
    for (const char* path : {"", "/", "///", ".", "..", "a", "abcdefghijklmnop/.ts"}) {
        EXPECT_EQ(tsl_is_reserved_folder(path), 0) << path;
        EXPECT_EQ(tsl_is_mbox_folder(path), 1) << path;
    }
    EXPECT_EQ(tsl_is_reserved_folder(nullptr), 0);
    EXPECT_EQ(tsl_is_mbox_folder(nullptr), 1);
}

// The path is compared byte by byte: a long path is not a special case.
TEST(ReservedNames, LongPath) {
    const std::string path(1 << 20, 'x');
    EXPECT_EQ(tsl_is_reserved_folder(path.c_str()), 0);
    EXPECT_EQ(tsl_is_reserved_folder((path + "/.reply" + std::string(1 << 20, '/')).c_str()), 1);
}

struct FolderRow {
    const char* what;
    std::vector<const char*> dirs;
    std::vector<const char*> files;
    int expected;
};

TEST(MaildirFolder, ByMarkerOrByThreeSubDirectories) {
    const FolderRow rows[] = {
        {"empty", {}, {}, 0},
        {"marker file", {}, {".maildirfolder"}, 1},
        {"marker directory", {".maildirfolder"}, {}, 1},
        {"all three", {"cur", "new", "tmp"}, {}, 1},
        {"three files", {}, {"cur", "new", "tmp"}, 1},
        {"no tmp", {"cur", "new"}, {}, 0},
        {"no new", {"cur", "tmp"}, {}, 0},
        {"no cur", {"new", "tmp"}, {}, 0},
        {"marker and one", {"cur"}, {".maildirfolder"}, 1},
        {"letter case", {"Cur", "new", "tmp"}, {}, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const TempDir dir;
        for (const char* name : row.dirs) make_dirs(dir / name);
        for (const char* name : row.files) write(dir / name, "");
        EXPECT_EQ(tsl_is_maildir_folder(dir.path().c_str()), row.expected);
        EXPECT_EQ(tsl_is_mail_folder(dir.path().c_str(), nullptr), row.expected);
        const struct stat st = testing_files::status(dir.path());
        EXPECT_EQ(tsl_is_mail_folder(dir.path().c_str(), &st), row.expected);
    }
}

TEST(MaildirFolder, MissingAndOtherObjects) {
    const TempDir dir;
    make_maildir(dir / "f");
    write(dir / "file", "x");
    ASSERT_EQ(::symlink("f", (dir / "link").c_str()), 0);
    ASSERT_EQ(::symlink("nowhere", (dir / "f/.maildirfolder").c_str()), 0);
    EXPECT_EQ(tsl_is_mail_folder((dir / "link").c_str(), nullptr), 1);
    for (const char* name : {"missing", "file", ""}) {
        EXPECT_EQ(tsl_is_maildir_folder((dir / name).c_str()), 0) << name;
        EXPECT_EQ(tsl_is_mail_folder((dir / name).c_str(), nullptr), 0) << name;
    }
    EXPECT_EQ(tsl_is_maildir_folder(nullptr), 0);
    EXPECT_EQ(tsl_is_mail_folder(nullptr, nullptr), 0);
}

TEST(MaildirFolder, AMarkerThatLeadsNowhereIsNone) {
    const TempDir dir;
    ASSERT_EQ(::symlink("nowhere", (dir / ".maildirfolder").c_str()), 0);
    EXPECT_EQ(tsl_is_maildir_folder(dir.path().c_str()), 0);
}

// The caller's record decides what the object is. Only then is the directory looked at.
TEST(MailFolder, TrustsTheGivenRecord) {
    const TempDir dir;
    make_maildir(dir / "f");
    write(dir / "file", "x");
    const struct stat file = testing_files::status(dir / "file");
    const struct stat folder = testing_files::status(dir / "f");
    EXPECT_EQ(tsl_is_mail_folder((dir / "f").c_str(), &file), 0);
    EXPECT_EQ(tsl_is_mail_folder((dir / "file").c_str(), &folder), 0);
}

// A directory whose path has exactly `length` characters.
std::string directory_of_length(const TempDir& top, size_t length) {
    std::string path = top.path();
    while (path.size() < length) {
        const size_t rest = length - path.size() - 1;
        // never leave a rest of one character, which a name cannot fill
        const size_t name = rest <= 200 ? rest : std::min<size_t>(200, rest - 2);
        path += '/' + std::string(name, 'd');
    }
    return path;
}

TEST(MaildirFolder, LongPaths) {
    const TempDir top;
    // With the marker's name behind it a path of 4080 characters fills PATH_MAX.
    for (const size_t length : {4079u, 4080u}) {
        const std::string dir = directory_of_length(top, length);
        ASSERT_EQ(dir.size(), length);
        EXPECT_EQ(tsl_is_maildir_folder(dir.c_str()), 0);
        make_maildir(dir);
        EXPECT_EQ(tsl_is_maildir_folder(dir.c_str()), 1) << length;
        write(dir + "/.maildirfolder", "");
        ASSERT_EQ(::rmdir((dir + "/cur").c_str()), 0);
        EXPECT_EQ(tsl_is_maildir_folder(dir.c_str()), 1) << length;
    }
    const std::string dir = directory_of_length(top, 4081);
    make_maildir(dir);
    EXPECT_EQ(tsl_is_maildir_folder(dir.c_str()), 0);
    for (const size_t length : {4090u, 4091u, 4094u, 4095u, 4096u, 8192u, 1u << 20}) {
        const std::string path(length, 'x');
        EXPECT_EQ(tsl_is_maildir_folder(path.c_str()), 0) << length;
        EXPECT_EQ(tsl_is_mail_folder(path.c_str(), nullptr), 0) << length;
        const struct stat st = testing_files::status(top.path());
        EXPECT_EQ(tsl_is_mail_folder(path.c_str(), &st), 0) << length;
    }
}

TEST(MaildirFolder, WithoutSearchPermissionItIsNone) {
    const TempDir dir;
    make_maildir(dir / "f");
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod((dir / "f").c_str(), 0644), 0);
    EXPECT_EQ(testing_processes::run_unprivileged([&] {
                  const std::string path = dir / "f";
                  return tsl_is_maildir_folder(path.c_str()) * 2 +
                         tsl_is_mail_folder(path.c_str(), nullptr);
              }),
              0);
}

}  // namespace
