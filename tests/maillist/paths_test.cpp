// Where the lists lie, through both exported functions.
#include <tessaly/MailUserId.h>
#include <tessaly/maillist.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

namespace {

std::string path_of(const char* user, const char* list, unsigned scope) {
    char buffer[4096];
    EXPECT_EQ(mail_list_get_path(user, list, buffer, sizeof buffer, scope), 0);
    return buffer;
}

struct Row {
    const char* user;
    const char* list;
    unsigned scope;
    const char* path;
};

const Row kRows[] = {
    {"Ann.Lee+Work@Site.Test", "whitelist", MAIL_LIST_USER,
     "/var/spool/home/site.test/ann.lee~site.test/pref/ann.lee~site.test.whitelist"},
    {"ann@site.test", "my.list", MAIL_LIST_USER,
     "/var/spool/home/site.test/ann~site.test/pref/ann~site.test.my.list"},
    {"ann@site.test", "", MAIL_LIST_USER,
     "/var/spool/home/site.test/ann~site.test/pref/ann~site.test."},
    {"ann@site.test", "blacklist", 3,
     "/var/spool/home/site.test/ann~site.test/pref/ann~site.test.blacklist"},
    {"ann@site.test", "blacklist", UINT_MAX,
     "/var/spool/home/site.test/ann~site.test/pref/ann~site.test.blacklist"},
    {"Bob", "blocklist", MAIL_LIST_USER, "/var/spool/home//bob/pref/bob.blocklist"},
    {"", "blocklist", MAIL_LIST_USER, "/var/spool/home///pref/.blocklist"},
    // In the home scope the directory has the user as given, and the file name has the tilde name.
    {"Ann+X@Site.Test", "whitelist", MAIL_LIST_HOME,
     "/var/spool/home/Ann+X@Site.Test/ann~site.test.whitelist"},
    {"Group", "my.list", MAIL_LIST_HOME, "/var/spool/home/Group/group.my.list"},
    {nullptr, "whitelist", MAIL_LIST_SYSTEM, "/var/spool/etc/mail/whitelist"},
    {"ann@site.test", "my.list", MAIL_LIST_SYSTEM, "/var/spool/etc/mail/my.list"},
};

}  // namespace

TEST(ListPath, LiesWhereTheScopeSays) {
    for (const Row& row : kRows) {
        EXPECT_EQ(path_of(row.user, row.list, row.scope), row.path);
        char buffer[4096] = "";
        mail_list_get_file_name(row.user, row.list, buffer, sizeof buffer, row.scope);
        EXPECT_STREQ(buffer, row.path);
    }
}

TEST(ListPath, OfTheUserScopeIsTheFileOfTheKind) {
    const Tessaly::TSMailUserId id("Ann.Lee+Work@Site.Test");
    const struct {
        const char* list;
        int kind;
    } rows[] = {{"whitelist", MUF_WHITELIST},
                {"blacklist", MUF_BLACKLIST},
                {"blocklist", MUF_BLOCKLIST},
                {"primaryaddr", MUF_PRIMARY_ADDR},
                {"secondaryaddr", MUF_SECONDARY_ADDR}};
    for (const auto& row : rows) {
        EXPECT_EQ(path_of("Ann.Lee+Work@Site.Test", row.list, MAIL_LIST_USER), id.fname(row.kind));
    }
}

TEST(ListPath, IsCutToTheBufferWhichIsFilled) {
    const std::string whole = "/var/spool/etc/mail/whitelist";
    const int length = static_cast<int>(whole.size());
    for (const int len : {1, 2, 10, length, length + 1, length + 2, 64}) {
        char buffer[80];
        std::fill(std::begin(buffer), std::end(buffer), '#');
        mail_list_get_file_name(nullptr, "whitelist", buffer, len, MAIL_LIST_SYSTEM);
        const auto room = static_cast<std::size_t>(len);
        std::string expected = whole.substr(0, room - 1);
        expected.resize(room, '\0');
        EXPECT_EQ(std::string(buffer, room), expected) << len;
        EXPECT_EQ(buffer[room], '#') << len;
        EXPECT_EQ(mail_list_get_path(nullptr, "whitelist", buffer, len, MAIL_LIST_SYSTEM), 0);
        EXPECT_EQ(std::string(buffer, room), expected) << len;
    }
}

TEST(ListPath, MayReplaceTheTextsThatItIsMadeOf) {
    for (const unsigned scope : {MAIL_LIST_USER, MAIL_LIST_HOME, MAIL_LIST_SYSTEM}) {
        const std::string expected = path_of("ann@site.test", "whitelist", scope);
        char buffer[80] = "ann@site.test";
        EXPECT_EQ(mail_list_get_path(buffer, "whitelist", buffer, sizeof buffer, scope), 0);
        EXPECT_EQ(buffer, expected);
        std::strcpy(buffer, "whitelist");
        mail_list_get_file_name("ann@site.test", buffer, buffer, sizeof buffer, scope);
        EXPECT_EQ(buffer, expected);
    }
}

TEST(ListPath, OfLengthTenHasNineCharacters) {
    char buffer[10];
    mail_list_get_file_name("ann@site.test", "whitelist", buffer, 10, MAIL_LIST_USER);
    EXPECT_STREQ(buffer, "/var/spoo");
}

TEST(ListPath, WritesNothingWithoutRoom) {
    for (const int len : {0, -1, INT_MIN}) {
        char byte = '#';
        mail_list_get_file_name(nullptr, "whitelist", &byte, len, MAIL_LIST_SYSTEM);
        EXPECT_EQ(mail_list_get_path(nullptr, "whitelist", &byte, len, MAIL_LIST_SYSTEM), 0);
        EXPECT_EQ(byte, '#');
    }
}

TEST(ListPath, AnswersNull) {
    mail_list_get_file_name(nullptr, "whitelist", nullptr, 10, MAIL_LIST_SYSTEM);
    EXPECT_EQ(mail_list_get_path(nullptr, "whitelist", nullptr, 10, MAIL_LIST_SYSTEM), -1);
    const struct {
        const char* user;
        const char* list;
        unsigned scope;
    } rows[] = {{nullptr, "whitelist", MAIL_LIST_USER},
                {nullptr, "whitelist", MAIL_LIST_HOME},
                {nullptr, "whitelist", 7},
                {nullptr, nullptr, MAIL_LIST_SYSTEM},
                {"ann@site.test", nullptr, MAIL_LIST_USER}};
    for (const auto& row : rows) {
        char buffer[8] = "#######";
        EXPECT_EQ(mail_list_get_path(row.user, row.list, buffer, sizeof buffer, row.scope), -1);
        EXPECT_EQ(std::string(buffer, sizeof buffer), std::string(8, '\0'));
    }
}
