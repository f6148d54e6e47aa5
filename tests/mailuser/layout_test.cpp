// Paths and file kinds of every mailbox type, and mailuser_filename.
#include <tessaly/MailUserId.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <functional>
#include <map>

#include "quota/failing_new.h"

using namespace Tessaly;
using std::string;

namespace {

MailBoxType type_of(unsigned number) { return static_cast<MailBoxType>(number); }

// The directories of one mailbox type, for the address in kAddress (types 8 and 11: kPath).
struct Layout {
    unsigned type;
    string home, mail, drop;
};

const string kAddress = "Ann.Lee+Work@Site.Test";
const string kPath = "/x/Y";

const Layout kLayouts[] = {
    {0, "", "/mail", "/mail/Inbox"},
    {1, "/var/spool/home/site.test/ann.lee~site.test",
     "/var/spool/home/site.test/ann.lee~site.test/mail",
     "/var/spool/home/site.test/ann.lee~site.test/mail/Work"},
    {2, "/var/spool/dead", "/var/spool/dead", "/var/spool/dead/Inbox"},
    {3, "/var/spool/home/sys_arch/ann.lee~site.test",
     "/var/spool/home/sys_arch/ann.lee~site.test/mail",
     "/var/spool/home/sys_arch/ann.lee~site.test/mail/Work"},
    {4, "/var/spool/home/sys_quar/ann.lee~site.test",
     "/var/spool/home/sys_quar/ann.lee~site.test/mail",
     "/var/spool/home/sys_quar/ann.lee~site.test/mail/Work/current"},
    {5, "/var/spool/ibe_tmp/store/ann.lee~site.test", "/var/spool/ibe_tmp/store/ann.lee~site.test",
     "/var/spool/ibe_tmp/store/ann.lee~site.test"},
    {6, "/var/spool/home/site.test/ann.lee~site.test",
     "/var/spool/home/site.test/ann.lee~site.test/mail",
     "/var/spool/home/site.test/ann.lee~site.test/mail/Work"},
    {7, "/var/spool/home/external/s/site.test/ann.lee~site.test",
     "/var/spool/home/external/s/site.test/ann.lee~site.test/mail",
     "/var/spool/home/external/s/site.test/ann.lee~site.test/mail/Work"},
    {8, "/x/Y", "/x/Y", "/x/Y/Inbox"},
    {10, "/var/spool/deferd/Ann.Lee+Work@Site.Test", "/var/spool/deferd/Ann.Lee+Work@Site.Test",
     "/var/spool/deferd/Ann.Lee+Work@Site.Test/Inbox"},
    {11, "/x/Y", "/x/Y", "/x/Y/Inbox"},
    {12, "/var/spool/home.local/site.test/ann.lee~site.test",
     "/var/spool/home.local/site.test/ann.lee~site.test/mail",
     "/var/spool/home.local/site.test/ann.lee~site.test/mail/Work"},
    {13, "", "/mail", "/mail/Inbox"},
    {0xffffffff, "", "/mail", "/mail/Inbox"},
};

TSMailUserId make(unsigned type) {
    return {type_of(type), type == 8 || type == 11 ? kPath : kAddress};
}

string message_of(const std::function<void()>& call) {
    try {
        call();
    } catch (const Exception& e) {
        EXPECT_EQ(e.code(), 4);
        EXPECT_STREQ(e.file(), "MailUserId");
        EXPECT_GT(e.line(), 0);
        EXPECT_EQ(e.message(), e.what());
        return e.what();
    }
    return "nothing thrown";
}

}  // namespace

TEST(Layout, DirectoriesOfEveryType) {
    for (const Layout& row : kLayouts) {
        SCOPED_TRACE(row.type);
        const TSMailUserId id = make(row.type);
        EXPECT_EQ(id.homepath(), row.home);
        EXPECT_EQ(id.mailpath(), row.mail);
        EXPECT_EQ(id.prefpath(), row.home + "/pref");
        EXPECT_EQ(id.indexfolder("Sent"), row.home + "/index/Sent");
        EXPECT_EQ(id.indexfolder(""), row.home + "/index/");
        EXPECT_EQ(id.trashfolder(), "/var/spool/home/sys_arch/.Trash");
        EXPECT_EQ(id.mailfolder("Sent"), row.type == 5 ? row.mail : row.mail + "/Sent");
        EXPECT_EQ(id.mailfolder(""), row.type == 5 ? row.mail : row.mail + "/");
        EXPECT_EQ(id.mailfolder("a//../b/"), row.type == 5 ? row.mail : row.mail + "/a//../b/");
        EXPECT_EQ(id.maildrop(""), row.drop);
    }
}

TEST(Layout, WhereADeliveryGoes) {
    const struct {
        unsigned type;
        const char* address;
        const char* name;
        const char* folder;
    } rows[] = {
        {1, "a@d", "", "Inbox"},
        {1, "a+T@d", "", "T"},
        {1, "a+T@d", "Name", "Name"},
        {1, "a@d", "Name", "Name"},
        {4, "a@d", "", "Content/current"},
        {4, "a+T@d", "", "T/current"},
        {4, "a+T@d", "Name", "Name/current"},
        {4, "a@d", "Name", "Name/current"},
        {5, "a+T@d", "", "T"},
        {0, "a+T@d", "", "Inbox"},
        {2, "a+T@d", "", "Inbox"},
        {10, "a+T@d", "Name/", "Name/"},
        {12, "a+T/../x@d", "", "T/../x"},
        {13, "a+T@d", "", "Inbox"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.type << ' ' << row.address << ' ' << row.name);
        const TSMailUserId id(type_of(row.type), row.address);
        EXPECT_EQ(id.local_maildrop(row.name), row.folder);
        EXPECT_EQ(id.maildrop(row.name), id.mailfolder(row.folder));
    }
    const TSMailUserId store(MAILBOX_SECURE_STORE, "a+T@d");
    EXPECT_EQ(store.maildrop("Name"), "/var/spool/ibe_tmp/store/a~d");
}

TEST(Layout, MissingFieldsGiveShorterPaths) {
    const struct {
        unsigned type;
        string text, home;
    } rows[] = {
        {1, "", "/var/spool/home//"},
        {1, "Bob", "/var/spool/home//bob"},
        {1, "user@", "/var/spool/home//user~"},
        {1, "@D", "/var/spool/home/d/~d"},
        {1, "a/../b@..", "/var/spool/home/../a/../b~.."},
        {2, "", "/var/spool/dead"},
        {2, "/elsewhere", "/var/spool/dead"},
        {3, "", "/var/spool/home/sys_arch/"},
        {4, "Bob", "/var/spool/home/sys_quar/bob"},
        {5, "", "/var/spool/ibe_tmp/store/"},
        {7, "A@\xc4z", "/var/spool/home/external/\xc4/\xc4z/a~\xc4z"},
        {7, "A@B", "/var/spool/home/external/b/b/a~b"},
        {7, "Bob", string("/var/spool/home/external/\0//bob", 31)},
        {8, "", ""},
        {8, "relative/", "relative/"},
        {10, "", "/var/spool/deferd/"},
        {12, "Bob", "/var/spool/home.local//bob"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.type << ' ' << row.text);
        EXPECT_EQ(TSMailUserId(type_of(row.type), row.text).homepath(), row.home);
    }
}

TEST(Direct, OperationsWithoutALayoutThrow) {
    const TSMailUserId id(MAILBOX_DIRECT, "any");
    const std::map<string, std::function<void()>> calls = {
        {"homepath", [&] { id.homepath(); }},
        {"mailpath", [&] { id.mailpath(); }},
        {"perfpath", [&] { id.prefpath(); }},
        {"indexfolder", [&] { id.indexfolder("x"); }},
        {"trashfolder", [&] { id.trashfolder(); }},
        {"local_maildrop", [&] { id.local_maildrop("x"); }},
        {"fname", [&] { id.fname(0); }},
    };
    for (const auto& [name, call] : calls) {
        EXPECT_EQ(message_of(call), " TSDirectMailUserId::" + name + "() - Not Implimented");
    }
    EXPECT_EQ(message_of([&] { static_cast<void>(id.domain()); }),
              " TSDirectMailUserId::homepath() - Not Implimented");
    EXPECT_EQ(message_of([&] { id.maildrop("x"); }),
              " TSDirectMailUserId::local_maildrop() - Not Implimented");
    for (const int kind : {-1, 3, 32, INT_MAX}) {
        EXPECT_EQ(message_of([&] { id.fname(kind); }),
                  " TSDirectMailUserId::fname() - Not Implimented");
    }
}

TEST(Direct, AFolderIsItsName) {
    const TSMailUserId id(MAILBOX_DIRECT, "any");
    EXPECT_EQ(id.mailfolder("/a/b"), "/a/b");
    EXPECT_EQ(id.mailfolder(""), "");
}

TEST(Direct, ThrownFromATypedObjectToo) {
    TSMailUserId id("a@d");
    id.type(MAILBOX_DIRECT);
    EXPECT_EQ(message_of([&] { id.homepath(); }),
              " TSDirectMailUserId::homepath() - Not Implimented");
    id.type(MAILBOX_USER);
    EXPECT_EQ(id.homepath(), "/var/spool/home/d/a~d");
}

// ---- File kinds

namespace {

// The path of each kind: H home, M mail path, D the delivery folder, P preferences, T tilde name,
// F folder of that name, W web folder. "-" is not a kind.
const char* const kKinds[] = {
    /* 0 */ "P/T.whitelist",
    "P/T.blacklist",
    "P/T.blocklist",
    "-",
    /* 4 */ "M",
    "P",
    "D",
    "H/quota_warning_flag",
    /* 8 */ "H/quota_exceeded_flag",
    "-",
    "F:Bulk",
    "H",
    /* 12 */ "dirname",
    "P/T.primaryaddr",
    "P/T.secondaryaddr",
    "P/T.pref",
    /* 16 */ "-",
    "F:Inbox_archive",
    "F:Inbox",
    "H/index/Inbox",
    /* 20 */ "F:Bulk_archive",
    "F:Bulk",
    "H/index/Bulk",
    "H/quota_exceeded_flag",
    /* 24 */ "P/T.emailtag",
    "P/T.calendartag",
    "F:Trash",
    "P/calendar.ics",
    /* 28 */ "H/.alert_notification",
    "W",
    "H",
    "P/T.favorlist"};

// The literal path of a kind for one of the layouts above.
string literal(const string& kind, const Layout& layout, const string& tilde,
               const string& domain) {
    if (kind == "-") return "";
    if (kind == "D") return layout.drop;
    if (kind == "W") return "/var/spool/home/sys_dav/webdav/" + domain + "/" + tilde;
    if (kind == "dirname") {
        return layout.home.empty() ? "." : layout.home.substr(0, layout.home.rfind('/'));
    }
    if (kind.starts_with("F:")) {
        return layout.type == 5 ? layout.mail : layout.mail + "/" + kind.substr(2);
    }
    string path = kind[0] == 'M' ? layout.mail : layout.home;
    if (kind[0] == 'P') path += "/pref";
    return path + (kind.starts_with("P/T") ? "/" + tilde + kind.substr(3) : kind.substr(1));
}

}  // namespace

TEST(Kinds, NumbersAreInterface) {
    const std::map<int, int> numbers = {{0, MUF_WHITELIST},
                                        {1, MUF_BLACKLIST},
                                        {2, MUF_BLOCKLIST},
                                        {4, MUF_MAILPATH},
                                        {5, MUF_PREFPATH},
                                        {6, MUF_MAILDROP},
                                        {7, MUF_QUOTA_WARNING_FLAG},
                                        {8, MUF_QUOTA_EXCEEDED_FLAG},
                                        {10, MUF_BULK},
                                        {11, MUF_HOMEPATH},
                                        {12, MUF_HOME_PARENT},
                                        {13, MUF_PRIMARY_ADDR},
                                        {14, MUF_SECONDARY_ADDR},
                                        {15, MUF_PREF_FILE},
                                        {17, MUF_INBOX_ARCHIVE},
                                        {18, MUF_INBOX},
                                        {19, MUF_INBOX_INDEX},
                                        {20, MUF_BULK_ARCHIVE},
                                        {21, MUF_BULK_FOLDER},
                                        {22, MUF_BULK_INDEX},
                                        {23, MUF_QUOTA_EXCEEDED_FLAG_2},
                                        {24, MUF_EMAILTAG},
                                        {25, MUF_CALENDARTAG},
                                        {26, MUF_TRASH},
                                        {27, MUF_CALENDAR},
                                        {28, MUF_ALERT_NOTIFICATION},
                                        {29, MUF_WEBDAV},
                                        {30, MUF_LOCAL_HOMEPATH},
                                        {31, MUF_FAVORLIST}};
    for (const auto& [number, name] : numbers) EXPECT_EQ(name, number);
}

TEST(Kinds, OfEveryType) {
    static_assert(std::size(kKinds) == 32);
    for (const Layout& layout : kLayouts) {
        const TSMailUserId id = make(layout.type);
        const bool parsed = id.local(true) == "ann.lee";
        const bool path = layout.type == 8 || layout.type == 11;
        const string tilde = parsed                                  ? "ann.lee~site.test"
                             : path                                  ? kPath
                             : layout.type == 2 || layout.type == 10 ? kAddress
                                                                     : "";
        const string domain = parsed ? "site.test" : path || layout.type == 2 ? "system" : "";
        for (int kind = 0; kind < 32; ++kind) {
            EXPECT_EQ(id.fname(kind), literal(kKinds[kind], layout, tilde, domain))
                << "type " << layout.type << ", kind " << kind;
        }
        for (const int kind : {-1, -32, 32, 33, 64, 256, INT_MIN, INT_MAX}) {
            EXPECT_EQ(id.fname(kind), "") << "type " << layout.type << ", kind " << kind;
        }
    }
}

TEST(Kinds, SomeInFull) {
    const TSMailUserId user(kAddress);
    EXPECT_EQ(user.fname(0),
              "/var/spool/home/site.test/ann.lee~site.test/pref/"
              "ann.lee~site.test.whitelist");
    EXPECT_EQ(user.fname(12), "/var/spool/home/site.test");
    EXPECT_EQ(user.fname(29), "/var/spool/home/sys_dav/webdav/site.test/ann.lee~site.test");
    EXPECT_EQ(TSMailUserId("Bob").fname(29), "/var/spool/home/sys_dav/webdav//bob");
    EXPECT_EQ(TSMailUserId().fname(12), ".");
    EXPECT_EQ(TSMailUserId(MAILBOX_QUARANTINE, "a@d").fname(6),
              "/var/spool/home/sys_quar/a~d/mail/Content/current");
    EXPECT_EQ(TSMailUserId(MAILBOX_SECURE_STORE, "a@d").fname(4), "/var/spool/ibe_tmp/store/a~d");
    EXPECT_EQ(TSMailUserId(MAILBOX_GIVEN_PATH, "/m").fname(29),
              "/var/spool/home/sys_dav/webdav/system//m");
}

TEST(Kinds, TheDirectoryPartAsPosixHasIt) {
    const struct {
        const char *home, *parent;
    } rows[] = {
        {"", "."},       {"a", "."},       {"a/", "."},    {"a//", "."},    {"/", "/"},
        {"///", "/"},    {"/a", "/"},      {"/a/", "/"},   {"a/b", "a"},    {"a/b/", "a"},
        {"a//b", "a"},   {"a//b//", "a"},  {"/a/b", "/a"}, {"/a//b", "/a"}, {"..", "."},
        {"/a/..", "/a"}, {"a/./b", "a/."},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(TSMailUserId(MAILBOX_GIVEN_PATH, row.home).fname(12), row.parent) << row.home;
    }
}

TEST(Kinds, TheDirectoryPartOfLongHomes) {
    for (const std::size_t length : {1022U, 1023U, 1024U, 1025U, 4096U, 1U << 20}) {
        const string parent = "/" + string(length - 3, 'p');
        EXPECT_TRUE(TSMailUserId(MAILBOX_GIVEN_PATH, parent + "/h").fname(12) == parent) << length;
        EXPECT_EQ(TSMailUserId(MAILBOX_GIVEN_PATH, string(length, 'h')).fname(12), ".") << length;
    }
}

// ---- mailuser_filename

TEST(MailuserFilename, IsTheUsersKind) {
    const TSMailUserId user(kAddress);
    for (int kind = -1; kind <= 32; ++kind) {
        char path[256];
        EXPECT_EQ(mailuser_filename(kind, path, sizeof path, kAddress.c_str()), 0);
        EXPECT_EQ(path, kind == 30 ? "/var/spool/home.local/site.test/ann.lee~site.test"
                                   : user.fname(kind))
            << kind;
    }
}

TEST(MailuserFilename, OfTheMaildropUsesTheTag) {
    char path[256];
    mailuser_filename(6, path, sizeof path, "a+Work@d");
    EXPECT_STREQ(path, "/var/spool/home/d/a~d/mail/Work");
    mailuser_filename(6, path, sizeof path, "a@d");
    EXPECT_STREQ(path, "/var/spool/home/d/a~d/mail/Inbox");
}

TEST(MailuserFilename, CutsAndFillsTheWholeBuffer) {
    const string whole = "/var/spool/home/d/a~d";
    for (std::size_t len = 1; len <= whole.size() + 20; ++len) {
        string buffer(len + 8, '#');
        EXPECT_EQ(mailuser_filename(11, buffer.data(), static_cast<unsigned>(len), "a@d"), 0);
        string expected = whole.substr(0, len - 1);
        expected.resize(len, '\0');
        EXPECT_EQ(buffer, expected + "########") << len;
    }
}

TEST(MailuserFilename, AnswersWhatItIsNotMeantFor) {
    char path[8] = "#######";
    EXPECT_EQ(mailuser_filename(11, path, 0, "a@d"), 0);
    EXPECT_STREQ(path, "#######");
    EXPECT_EQ(mailuser_filename(11, nullptr, 8, "a@d"), 0);
    EXPECT_EQ(mailuser_filename(11, path, sizeof path, nullptr), 0);
    EXPECT_EQ(string(path, 8), string(8, '\0'));
}

TEST(MailuserFilename, OfAnUnknownKindIsEmpty) {
    for (const int kind : {3, 9, 16, 32, -1, INT_MAX, INT_MIN}) {
        string buffer(16, '#');
        EXPECT_EQ(mailuser_filename(kind, buffer.data(), 16, "a@d"), 0);
        EXPECT_EQ(buffer, string(16, '\0')) << kind;
    }
}

TEST(MailuserFilename, WithoutMemoryIsEmpty) {
    const string address(100, 'a');
    int n = 0;
    for (;; ++n) {
        string buffer(300, '#');
        int result = -1;
        bool fired = false;
        {
            const quota_test::FailingNew no_memory(n);
            result = mailuser_filename(0, buffer.data(), 300, address.c_str());
            fired = no_memory.fired();
        }
        EXPECT_EQ(result, 0);
        if (!fired) break;
        EXPECT_EQ(buffer, string(300, '\0')) << n;
    }
    EXPECT_GT(n, 3);
}

TEST(MailuserFilename, TakesAnAddressThatLiesInItsBuffer) {
    char text[256] = "Ann@Site.Test";
    mailuser_filename(11, text, sizeof text, text);
    EXPECT_STREQ(text, "/var/spool/home/site.test/ann~site.test");
    std::strcpy(text + 4, "a@d");
    mailuser_filename(11, text, sizeof text, text + 4);
    EXPECT_STREQ(text, "/var/spool/home/d/a~d");
}

TEST(MailuserFilename, TakesLongAddressesAndAnyBytes) {
    const string address = string(1 << 20, 'A') + "+\xff\x01\n@\xc4";
    string buffer(64, '#');
    EXPECT_EQ(mailuser_filename(11, buffer.data(), 64, address.c_str()), 0);
    EXPECT_EQ(buffer, "/var/spool/home/\xc4/" + string(45, 'a') + '\0');
    char path[256];
    mailuser_filename(6, path, sizeof path, "A+\xff\x01\n@\xc4");
    EXPECT_STREQ(path, "/var/spool/home/\xc4/a~\xc4/mail/\xff\x01\n");
}
