// The configuration file: values, checks with their places, changes, table 670.
#include <sys/stat.h>
#include <tessaly/support.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "quota/failing_new.h"
#include "testing/files.h"
#include "testing/processes.h"

using testing_files::TempDir;
using testing_files::write;

namespace {

constexpr int kArchiveAccounts = 670;
constexpr std::size_t kNameOffset = 4;
constexpr std::size_t kQuotaOffset = 640;

std::string as_text(const void* row) {
    if (row == nullptr) return "-";
    const char* bytes = static_cast<const char*>(row);
    std::uint16_t quota;
    std::memcpy(&quota, bytes + kQuotaOffset, sizeof quota);
    return std::string(bytes + kNameOffset) + '=' + std::to_string(quota);
}

std::string head() { return as_text(kqf_query_table_head(nCfg_query(kArchiveAccounts))); }
std::string next() { return as_text(kqf_query_get_next(nCfg_query(kArchiveAccounts))); }

// All rows, by a walk that asks for the handle again before each step.
std::string all_rows() {
    std::string rows;
    for (std::string row = head(); row != "-"; row = next()) rows += row + ' ';
    return rows;
}

void collect(int line, int column, const char* message, void* arg) {
    *static_cast<std::string*>(arg) +=
        std::to_string(line) + ':' + std::to_string(column) + ' ' + message + '\n';
}

struct Checked {
    int problems;
    std::string report;
};

Checked check(const char* path) {
    std::string report;
    errno = 0;
    const int problems = cfg_check(path, collect, &report);
    return {problems, report};
}

// Each test has a configuration file of its own, which does not exist at first.
class ConfigFile : public testing::Test {
  protected:
    ConfigFile() { ::setenv("TSMAIL_CONFIG", path.c_str(), 1); }
    const TempDir dir;
    const std::string path = dir / "tsmail.toml";
};

// Whether all values are those without a file.
bool defaults_hold() {
    return *cfg_get_TZ() == 0 && std::string(cfg_get_postmaster()) == "postmaster@sandbox" &&
           cfg_get_mail_user() == nullptr && all_rows().empty();
}

}  // namespace

TEST_F(ConfigFile, DefaultsHoldWithoutOne) {
    EXPECT_TRUE(defaults_hold());
    EXPECT_EQ(check(nullptr).problems, -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(ConfigFile, GivesItsValues) {
    write(path, R"(
timezone = -12
postmaster = "Post.Master@Site.Test"
mail_user = "vmail"
[[archive_account]]
name = "archive one"
quota_gib = 40
[[archive_account]]
quota_gib = 65535
name = 'ä'
)");
    EXPECT_EQ(*cfg_get_TZ(), -12);
    EXPECT_STREQ(cfg_get_postmaster(), "Post.Master@Site.Test");
    EXPECT_STREQ(cfg_get_mail_user(), "vmail");
    EXPECT_EQ(all_rows(), "archive one=40 ä=65535 ");
    EXPECT_EQ(check(nullptr).problems, 0);
    EXPECT_EQ(check(nullptr).report, "");
}

// Good and bad files, and the places of the errors.
TEST_F(ConfigFile, IsCheckedToTheLimits) {
    const std::string account = "[[archive_account]]\nquota_gib=1\nname=";
    const std::string quota = "[[archive_account]]\nname='a'\nquota_gib=";
    const struct {
        std::string text;
        std::string report;
    } rows[] = {
        {"", ""},
        {"# a comment only", ""},
        {"\xef\xbb\xbftimezone = 1", ""},
        {"timezone = 1\r\npostmaster = 'x'\r\n", ""},
        {"timezone = 2147483647", ""},
        {"timezone = -2147483648", ""},
        {"timezone = 0x7fffffff", ""},
        {"timezone = 2147483648", "1:12 timezone is not between -2147483648 and 2147483647\n"},
        {"timezone = -2147483649", "1:12 timezone is not between -2147483648 and 2147483647\n"},
        {"timezone = 1.0", "1:12 timezone is not an integer\n"},
        {"timezone = '1'", "1:12 timezone is not an integer\n"},
        {"\n  timezone = true", "2:14 timezone is not an integer\n"},
        {"[timezone]", "1:1 timezone is not an integer\n"},
        {"postmaster = ''", "1:14 postmaster is empty\n"},
        {"postmaster = 1", "1:14 postmaster is not a string\n"},
        {"postmaster = ['x']", "1:14 postmaster is not a string\n"},
        {"postmaster = \"a\\nb\"", "1:14 postmaster has a line break or control character in it\n"},
        {"postmaster = \"a\\r\"", "1:14 postmaster has a line break or control character in it\n"},
        {"postmaster = \"a\tb\"", "1:14 postmaster has a line break or control character in it\n"},
        {"postmaster = \"\\u0000\"",
         "1:14 postmaster has a line break or control character in it\n"},
        {"postmaster = \"\\u001f\"",
         "1:14 postmaster has a line break or control character in it\n"},
        {"postmaster = \"\\u007f\"",
         "1:14 postmaster has a line break or control character in it\n"},
        {"postmaster = '''\na\nb'''",
         "1:14 postmaster has a line break or control character in it\n"},
        {"postmaster = 'ü ~'", ""},
        {"mail_user = ''", "1:13 mail_user is empty\n"},
        {"mail_user = 8", "1:13 mail_user is not a string\n"},
        {"mail_user = \"a\\nb\"", "1:13 mail_user has a line break or control character in it\n"},
        {"mail_user = 'vmail'", ""},
        {"archive_account = []", ""},
        {"archive_account = [{name='a', quota_gib=1}, {name='b', quota_gib=2}]", ""},
        {"archive_account = 1",
         "1:19 archive_account is not an array of tables ([[archive_account]])\n"},
        {"[archive_account]\nname='a'\nquota_gib=1",
         "1:1 archive_account is not an array of tables ([[archive_account]])\n"},
        {"archive_account = [{name='a', quota_gib=1}, 2]",
         "1:45 archive_account holds something that is not a table\n"},
        {quota + "0", ""},
        {quota + "65535", ""},
        {quota + "65536", "3:11 quota_gib is not between 0 and 65535\n"},
        {quota + "-1", "3:11 quota_gib is not between 0 and 65535\n"},
        {quota + "'1'", "3:11 quota_gib is not an integer\n"},
        {quota + "1e3", "3:11 quota_gib is not an integer\n"},
        {account + "'" + std::string(635, 'n') + "'", ""},
        {account + "'" + std::string(635, '.') + "'", ""},
        {account + "'" + std::string(636, 'n') + "'", "3:6 name is longer than 635 bytes\n"},
        {account + "''", "3:6 name is empty\n"},
        {account + "1", "3:6 name is not a string\n"},
        {account + "\"a\\u0000b\"", "3:6 name has a NUL in it\n"},
        {"[[archive_account]]", "1:1 name is missing\n1:1 quota_gib is missing\n"},
        {"timezone = 1\n\n [[archive_account]]\nname='a'", "3:2 quota_gib is missing\n"},
        {"colour = 1", "1:1 warning: unknown key colour\n"},
        {"timezone = 1\n  'a b'.c = 1", "2:3 warning: unknown key a b\n"},
        {"[Timezone]\nx=1", "1:2 warning: unknown key Timezone\n"},
        {quota + "1\nname2='x'", "4:1 warning: unknown key name2\n"},
        {"x=[[[[[[1]]]]]]", "1:1 warning: unknown key x\n"},
        {quota + "x\n", "3:11 Error while parsing value: could not determine value type\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        write(path, row.text);
        const Checked checked = check(nullptr);
        const bool broken = !row.report.empty() && row.report.find("warning") == std::string::npos;
        EXPECT_EQ(checked.problems > 0, broken);
        if (row.report.find("Error while") == std::string::npos) {
            EXPECT_EQ(checked.report, row.report);
        }
        if (broken) {
            EXPECT_TRUE(defaults_hold());
        }
    }
}

TEST_F(ConfigFile, EveryProblemIsReportedInTheOrderOfTheFile) {
    write(path, R"([[archive_account]]
quota_gib = 65536
zz = 1
name = ""
[[archive_account]]
name = "fine"
quota_gib = 1
[[archive_account]]
[other]
)");
    const Checked checked = check(path.c_str());
    EXPECT_EQ(checked.problems, 4);
    EXPECT_EQ(checked.report, R"(2:13 quota_gib is not between 0 and 65535
3:1 warning: unknown key zz
4:8 name is empty
8:1 name is missing
8:1 quota_gib is missing
9:2 warning: unknown key other
)");
    EXPECT_EQ(cfg_check(path.c_str(), nullptr, nullptr), 4);
}

TEST_F(ConfigFile, AWarningDoesNotKeepItFromBeingUsed) {
    write(path, "colour = 1\ntimezone = 7");
    EXPECT_EQ(*cfg_get_TZ(), 7);
    EXPECT_EQ(check(path.c_str()).problems, 0);
}

TEST_F(ConfigFile, ASyntaxErrorIsPlaced) {
    const struct {
        const char* text;
        const char* place;
    } rows[] = {
        {"timezone", "1:9 "},
        {"timezone = 1\ntimezone = 2", "2:"},
        {"timezone = 1\npostmaster = 'x", "2:16 "},
        {"timezone = 1\n# \xff\n", "2:"},
        {"timezone = 1 # ä\nä = 1", "2:1 "},
        {"[[archive_account]", "1:19 "},
        {"[[?archive_account]]", "1:3 "},
        {"[?]", "1:2 "},
        {"timezone = 1\n\nÃ¤ = 1", "3:1 "},
        {"timezone = Ã¤", "1:12 "},
        {"timezone = 1Ã¤", "1:13 "},
        {"postmaster = \"\"\"x\\\nÃ¤\"\"\"\nx", "3:2 "},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        write(path, row.text);
        const Checked checked = check(nullptr);
        EXPECT_EQ(checked.problems, 1);
        EXPECT_EQ(checked.report.substr(0, std::strlen(row.place)), row.place) << checked.report;
        EXPECT_EQ(checked.report.find('\n'), checked.report.size() - 1);
        EXPECT_TRUE(defaults_hold());
    }
    write(path, std::string("timezone = 1\n\0", 14));
    EXPECT_EQ(check(nullptr).problems, 1);
    EXPECT_TRUE(defaults_hold());
}

// The parser has no limit for the levels of dotted keys.
TEST_F(ConfigFile, DeepKeysAreRefused) {
    const auto dotted = [](int dots) {
        std::string key = "a";
        for (int i = 0; i < dots; ++i) key += ".a";
        return key;
    };
    const struct {
        std::string text;
        std::string report;
    } rows[] = {
        {dotted(32) + "=1", "1:1 warning: unknown key a\n"},
        {dotted(33) + "=1", "1:66 a key of too many levels\n"},
        {"timezone=1\n[" + dotted(33) + "]", "2:67 a key of too many levels\n"},
        {dotted(200000) + "=1", "1:66 a key of too many levels\n"},
        {"postmaster='ä'\nb=" + dotted(33), "2:68 a key of too many levels\n"},
        {"b='ä" + dotted(40) + "'", "1:1 warning: unknown key b\n"},
        {"b='''" + dotted(40) + "'\n'''", "1:1 warning: unknown key b\n"},
        {"b=\"\\\"" + dotted(40) + "\"", "1:1 warning: unknown key b\n"},
        {"b=\"\"\"" + dotted(40) + "\"\"\"\"\"", "1:1 warning: unknown key b\n"},
        {"b=[\"\"\"a\"\"\"\", {" + dotted(33) + "=1}]", "1:80 a key of too many levels\n"},
        {"b='\"'#'\n" + dotted(33) + "=1", "2:66 a key of too many levels\n"},
        {"b=\"\"\"'\"\"\"\"\"\n" + dotted(33) + "=1", "2:66 a key of too many levels\n"},
        {"b=1 #" + dotted(40) + "\n", "1:1 warning: unknown key b\n"},
        {"#" + dotted(40), ""},
    };
    testing_processes::run_with_stack(512 * 1024, [&] {
        for (const auto& row : rows) {
            write(path, row.text);
            EXPECT_EQ(check(nullptr).report, row.report) << row.text.substr(0, 200);
        }
    });
}

TEST_F(ConfigFile, NestedValuesAreRefused) {
    testing_processes::run_with_stack(512 * 1024, [&] {
        write(path, "x=" + std::string(100000, '['));
        EXPECT_EQ(check(nullptr).problems, 1);
        write(path, "x=[[[[[[[[[1]]]]]]]]]");
        EXPECT_EQ(check(nullptr).problems, 1);
    });
}

TEST_F(ConfigFile, WhatCannotBeReadIsNoConfiguration) {
    EXPECT_EQ(check((dir / "missing").c_str()).problems, -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(check("").problems, -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(check(dir.path().c_str()).problems, -1);
    EXPECT_EQ(errno, EISDIR);
    ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
    EXPECT_EQ(check((dir / "fifo").c_str()).problems, -1);
    EXPECT_EQ(errno, EINVAL);
    write(path, "timezone = 1\n" + std::string((1 << 20) - 13, ' '));
    EXPECT_EQ(check(nullptr).problems, 0);
    EXPECT_EQ(*cfg_get_TZ(), 1);
    write(path, "timezone = 1\n" + std::string((1 << 20) - 12, ' '));
    EXPECT_EQ(check(nullptr).problems, -1);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_TRUE(defaults_hold());
    for (const char* other : {"/", "/dev/zero", "/dev/null"}) {
        ::setenv("TSMAIL_CONFIG", other, 1);
        EXPECT_TRUE(defaults_hold()) << other;
    }
}

TEST_F(ConfigFile, ARefusedOneCountsAsNone) {
    write(path, "timezone = 1");
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod(path.c_str(), 0), 0);
    const int result = testing_processes::run_unprivileged([&] {
        if (check(nullptr).problems != -1 || errno != EACCES) return 1;
        return defaults_hold() ? 0 : 2;
    });
    EXPECT_EQ(result, 0);
}

TEST_F(ConfigFile, WithoutMemoryTheDefaultsHold) {
    write(path, "timezone = 5\n[[archive_account]]\nname='a'\nquota_gib=1\n[other]\nx=[1]\n");
    const std::size_t descriptors = testing_files::open_descriptors();
    int n = 0;
    for (bool fired = true; fired; ++n) {
        int zone = -1;
        const void* row = nullptr;
        int checked = -2;
        int error = 0;
        bool check_fired = false;
        {
            const quota_test::FailingNew no_memory(n);
            zone = *cfg_get_TZ();
            fired = no_memory.fired();
        }
        ASSERT_EQ(zone, fired ? 0 : 5) << n;
        {
            const quota_test::FailingNew no_memory(n);
            row = kqf_query_table_head(nCfg_query(kArchiveAccounts));
        }
        ASSERT_EQ(as_text(row), fired ? "-" : "a=1") << n;
        {
            const quota_test::FailingNew no_memory(n);
            errno = 0;
            checked = cfg_check(path.c_str(), nullptr, nullptr);
            error = errno;
            check_fired = no_memory.fired();
        }
        ASSERT_EQ(checked, check_fired ? -1 : 0) << n;
        ASSERT_EQ(error, check_fired ? ENOMEM : 0) << n;
        ASSERT_EQ(testing_files::open_descriptors(), descriptors) << n;
    }
    EXPECT_GT(n, 10);
    EXPECT_EQ(*cfg_get_TZ(), 5);
}

TEST_F(ConfigFile, AChangeIsSeenByTheNextCall) {
    write(path, "timezone = 1");
    EXPECT_EQ(*cfg_get_TZ(), 1);
    for (int i = 10; i < 60; ++i) {  // the same length, and so soon that the times do not differ
        write(path, "timezone = " + std::to_string(i));
        ASSERT_EQ(*cfg_get_TZ(), i);
    }
    write(path, "timezone = broken");
    EXPECT_EQ(*cfg_get_TZ(), 0);
    write(path, "postmaster = 'new'");
    EXPECT_STREQ(cfg_get_postmaster(), "new");
    ::unlink(path.c_str());
    EXPECT_TRUE(defaults_hold());
    write(path, "timezone = 2");
    EXPECT_EQ(*cfg_get_TZ(), 2);
}

TEST_F(ConfigFile, AChangeOfASettledFileIsSeenToo) {
    write(path, "timezone = 1");
    write(dir / "other", "timezone = 2");
    ::sleep(5);  // a change of the file now changes its times
    EXPECT_EQ(*cfg_get_TZ(), 1);
    EXPECT_EQ(*cfg_get_TZ(), 1);
    testing_files::set_mtime(dir / "other", testing_files::status(path).st_mtime);
    ASSERT_EQ(::rename((dir / "other").c_str(), path.c_str()), 0);
    EXPECT_EQ(*cfg_get_TZ(), 2);
    const time_t before = testing_files::status(path).st_mtime;
    write(path, "timezone = 3");
    testing_files::set_mtime(path, before);
    EXPECT_EQ(*cfg_get_TZ(), 3);
    write(dir / "other", "timezone = 4");
    ::setenv("TSMAIL_CONFIG", (dir / "other").c_str(), 1);
    EXPECT_EQ(*cfg_get_TZ(), 4);
}

TEST_F(ConfigFile, ItsNameIsToldAndAnEmptyOneIsNone) {
    EXPECT_EQ(cfg_get_file(), path);
    ::setenv("TSMAIL_CONFIG", "", 1);
    EXPECT_STREQ(cfg_get_file(), "/etc/tessaly/tsmail.toml");
    ::unsetenv("TSMAIL_CONFIG");
    EXPECT_STREQ(cfg_get_file(), "/etc/tessaly/tsmail.toml");
}

TEST_F(ConfigFile, WhatWasHandedOutStays) {
    write(path, "timezone = 1\npostmaster = '" + std::string(100, 'p') + "'\nmail_user = '" +
                    std::string(100, 'm') + "'");
    const int* zone = cfg_get_TZ();
    const char* postmaster = cfg_get_postmaster();
    const char* mail_user = cfg_get_mail_user();
    write(path, "timezone = 2");
    EXPECT_EQ(all_rows(), "");
    EXPECT_EQ(cfg_get_TZ(), zone);
    EXPECT_EQ(*zone, 2);
    EXPECT_EQ(postmaster, std::string(100, 'p'));
    EXPECT_EQ(mail_user, std::string(100, 'm'));
    EXPECT_EQ(cfg_get_mail_user(), nullptr);
    EXPECT_STREQ(cfg_get_postmaster(), "postmaster@sandbox");
}

TEST_F(ConfigFile, OtherTablesAreUnknown) {
    for (const int table : {0, 669, 671, -670, -1}) EXPECT_EQ(nCfg_query(table), nullptr) << table;
    EXPECT_EQ(kqf_query_table_head(nullptr), nullptr);
    EXPECT_EQ(kqf_query_get_next(nullptr), nullptr);
}

class Table670 : public ConfigFile {
  protected:
    void set(const std::string& rows) {
        std::string text;
        for (const char name : rows) {
            text += std::string("[[archive_account]]\nname='") + name +
                    "'\nquota_gib=" + std::to_string(name - '0') + '\n';
        }
        write(path, text);
    }
};

TEST_F(Table670, HasOneHandleWithItsPlaceKept) {
    set("123");
    void* handle = nCfg_query(kArchiveAccounts);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(next(), "-");  // before any head call
    EXPECT_EQ(head(), "1=1");
    EXPECT_EQ(nCfg_query(kArchiveAccounts), handle);
    EXPECT_EQ(next(), "2=2");
    EXPECT_EQ(as_text(kqf_query_get_next(handle)), "3=3");
    EXPECT_EQ(next(), "-");
    EXPECT_EQ(next(), "-");
    EXPECT_EQ(head(), "1=1");
    EXPECT_EQ(head(), "1=1");
    EXPECT_EQ(next(), "2=2");
}

TEST_F(Table670, IsReadAnewByTheHeadCallOnly) {
    set("12");
    EXPECT_EQ(head(), "1=1");
    set("345");
    EXPECT_EQ(*cfg_get_TZ(), 0);  // reads the new file
    EXPECT_EQ(next(), "2=2");
    EXPECT_EQ(next(), "-");
    EXPECT_EQ(all_rows(), "3=3 4=4 5=5 ");
}

TEST_F(Table670, RowsStayUntilTheNextHeadCall) {
    set("12");
    const void* first = kqf_query_table_head(nCfg_query(kArchiveAccounts));
    const void* second = kqf_query_get_next(nCfg_query(kArchiveAccounts));
    ::unlink(path.c_str());
    EXPECT_EQ(*cfg_get_TZ(), 0);
    EXPECT_EQ(next(), "-");
    EXPECT_EQ(as_text(first) + as_text(second), "1=12=2");
    EXPECT_EQ(head(), "-");
}

TEST_F(Table670, HoldsManyRows) {
    std::string text;
    for (int i = 0; i < 3000; ++i) {
        text += "[[archive_account]]\nname='a" + std::to_string(i) +
                "'\nquota_gib=" + std::to_string(i) + '\n';
    }
    write(path, text);
    int count = 0;
    for (std::string row = head(); row != "-"; row = next(), ++count) {
        ASSERT_EQ(row, "a" + std::to_string(count) + '=' + std::to_string(count));
    }
    EXPECT_EQ(count, 3000);
}

TEST_F(Table670, ThreadsWalkByThemselves) {
    set("123");
    EXPECT_EQ(head(), "1=1");
    void* mine = nCfg_query(kArchiveAccounts);
    std::thread([mine] {
        EXPECT_NE(nCfg_query(kArchiveAccounts), mine);
        EXPECT_EQ(next(), "-");
        EXPECT_EQ(all_rows(), "1=1 2=2 3=3 ");
    }).join();
    EXPECT_EQ(next(), "2=2");
}

TEST_F(Table670, AChildOfForkGoesOnWhereItsParentWas) {
    set("123");
    EXPECT_EQ(head(), "1=1");
    testing_processes::Child child([] {
        if (next() != "2=2" || next() != "3=3" || next() != "-") return 1;
        return all_rows() == "1=1 2=2 3=3 " ? 0 : 2;
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(next(), "2=2");
}

// Several threads read while a process replaces the file all the time. Each thread sees one of the
// files, never a mixture.
TEST_F(Table670, ThreadsReadWhileItIsReplaced) {
    set("12");
    testing_processes::Child writer([&] {
        for (unsigned i = 0;; ++i) {
            write(dir / "new", i % 2 == 0
                                   ? "timezone=1\n[[archive_account]]\nname='1'\nquota_gib=1\n"
                                   : "timezone=2\n[[archive_account]]\nname='2'\nquota_gib=2\n");
            ::rename((dir / "new").c_str(), path.c_str());
        }
        return 0;
    });
    const auto read = [] {
        for (int i = 0; i < 500; ++i) {
            const std::string rows = all_rows();
            EXPECT_TRUE(rows == "1=1 " || rows == "2=2 " || rows == "1=1 2=2 ") << rows;
            const int zone = *cfg_get_TZ();
            EXPECT_TRUE(zone >= 0 && zone <= 2);
            EXPECT_STREQ(cfg_get_postmaster(), "postmaster@sandbox");
        }
    };
    std::thread threads[] = {std::thread(read), std::thread(read), std::thread(read)};
    for (std::thread& thread : threads) thread.join();
    writer.kill(SIGKILL);
    writer.wait();
}

// The environment must not lead a set-user-id program to a file that its caller chose.
TEST(SetUserId, ProgramsIgnoreTheEnvironment) {
    ::setenv("TSMAIL_CONFIG", "/tmp/other.toml", 1);
    int out[2];
    ASSERT_EQ(::pipe(out), 0);
    for (const bool borrowed : {false, true}) {
        testing_processes::Child child([&] {
            if (borrowed &&
                ::setresuid(1234, static_cast<uid_t>(-1), static_cast<uid_t>(-1)) != 0) {
                return 77;
            }
            ::dup2(out[1], 1);
            return ::execl(SUPPORT_CALL, SUPPORT_CALL, "file", nullptr);
        });
        const int result = child.wait();
        if (result == 77) GTEST_SKIP() << "needs a second user";
        ASSERT_EQ(result, 0);
        char text[256];
        const ssize_t n = ::read(out[0], text, sizeof text);
        EXPECT_EQ(std::string(text, static_cast<std::size_t>(n)),
                  borrowed ? "/etc/tessaly/tsmail.toml\n0\n" : "/tmp/other.toml\n0\n");
    }
}
