// The library does not create, empty or append to a file through a link that a third person made.
// It does so through a link that root or the caller made.
#include <tessaly/MailUserId.h>
#include <tessaly/maillist.h>
#include <tessaly/support.h>
#include <tessaly/userpref.h>

#include <functional>

#include "attack/mailbox.h"

namespace files = testing_files;
using namespace attack;

namespace {

const std::string kTarget = "/var/spool/elsewhere/target";

struct Writer {
    const char* name;
    std::string path;  // the file of the store that it writes
    std::function<void()> write;
    friend void PrintTo(const Writer& row, std::ostream* out) { *out << row.name; }
};

void store_preferences() {
    user_pref pref;
    get_default_user_pref(&pref);
    store_user_pref(kUser, &pref);
}

void append_and_close(const char* mode) {
    FILE* stream = open_and_lock_file((kHome + "/file").c_str(), mode);
    if (stream == nullptr) return;
    std::fputs("x", stream);
    close_and_unlock_file(stream);
}

const std::string kSize = kMail + "/.maildirsize", kFolderSize = kFolder + "/.ts_folder_size";
const std::string kMark = kMail + "/.maildirsize.dirty", kCache = kFolder + "/.ts_cache";
const std::string kWarning = kHome + "/quota_warning_flag";
const std::string kExceeded = kHome + "/quota_exceeded_flag";
const std::string kLock = kHiddenList + ".lock";
const unsigned kScope = MAIL_LIST_USER;

const Writer kWriters[] = {
    {"AppendToMailbox", kSize, [] { tsl_append_maildirsize(kSize.c_str(), 1, 1); }},
    {"AppendByMember", kSize, [] { Tessaly::TSMailUserId(kUser).append_maildirsize(1, 1); }},
    {"AppendToFolder", kFolderSize, [] { tsl_append_mail_folder_size(kFolderSize.c_str(), 1, 1); }},
    {"WriteFolderSize", kFolderSize, [] { tsl_write_mail_folder_size(kFolderSize.c_str(), 1, 1); }},
    {"UnlinkMail", kFolderSize,
     [] { tsl_maildir_unlink_mail((kFolder + "/cur/1.M1P1.h,#F#S#5#E:2,").c_str()); }},
    {"MarkByPath", kMark, [] { tsl_reset_quota_flag_by_path(kMail.c_str()); }},
    {"MarkByUser", kMark, [] { tsl_reset_quota_flag_by_user(kUser); }},
    {"MarkOfDamage", kMark,
     [] {
         ::unlink(kFolderSize.c_str());
         files::write(kFolderSize, "-1 -1\n");
         tsl_read_mail_folder_size(kFolderSize.c_str(), nullptr, nullptr);
     }},
    {"WriteCache", kCache, [] { tsl_write_maildir_cache_file(kCache.c_str(), 1, 1); }},
    {"Scan", kCache, [] { tsl_get_mailbox_size_actual(kFolder.c_str(), nullptr, 0); }},
    {"ScanDate", kFolder + "/.ts_unread_scan_date",
     [] { tsl_set_mail_unread_scandate(kFolder.c_str(), 1); }},
    {"WarningFlag", kWarning, [] { tsl_set_quota_warning(kUser, 1); }},
    {"ExceededFlag", kExceeded, [] { tsl_set_quota_exceeded(kUser, 1); }},
    {"ArchiveFlag", kExceeded, [] { tsl_set_arch_quota_exceeded(kUser); }},
    {"FlagByMember", kExceeded, [] { Tessaly::TSMailUserId(kUser).quota_exceeded(true); }},
    {"Preferences", kPref + "pref", store_preferences},
    {"List", kPref + "whitelist", [] { mail_list_add_to(kUser, "whitelist", "x", kScope); }},
    {"ListsLock", kLock, [] { mail_list_find(kUser, "whitelist", "x", kScope); }},
    {"LockedToWrite", kHome + "/file", [] { append_and_close("w"); }},
    {"LockedToAppend", kHome + "/file", [] { append_and_close("a+"); }},
};

class Links : public testing::TestWithParam<Writer> {
  protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "only root can make another person's link";
        make_mailbox();
    }
    // Makes the link and calls the writer as `caller`.
    void write_through_link_of(uid_t owner, uid_t caller) {
        const std::string& link = GetParam().path;
        ::unlink(kLock.c_str());  // which may be another caller's
        ::unlink(link.c_str());
        ASSERT_EQ(::symlink(kTarget.c_str(), link.c_str()), 0);
        give(link, owner);
        ASSERT_EQ(run_as(caller, [] { return GetParam().write(), 0; }), 0);
    }
    static void make_target() {
        files::write(kTarget, kText);
        ASSERT_EQ(::chmod(kTarget.c_str(), 0666), 0);
        files::set_mtime(kTarget, 1000);
    }
    static bool is_touched() {
        return files::read(kTarget) != kText || files::status(kTarget).st_mtime != 1000;
    }
    static constexpr char kText[] = "what was there\n";
};

TEST_P(Links, OfAnotherPersonAreNotWrittenThrough) {
    for (const uid_t caller : {uid_t{0}, kVictim}) {
        make_target();
        write_through_link_of(kOwner, caller);
        EXPECT_FALSE(is_touched()) << caller;
    }
}

TEST_P(Links, OfAnotherPersonMakeNoFile) {
    for (const uid_t caller : {uid_t{0}, kVictim}) {
        ::unlink(kTarget.c_str());
        write_through_link_of(kOwner, caller);
        EXPECT_FALSE(files::exists(kTarget)) << caller;
    }
}

// A link that root trusts may lead to a place where somebody else puts the next one.
TEST_P(Links, OfAnotherPersonBehindATrustedOneAreNotWrittenThrough) {
    make_target();
    const std::string& link = GetParam().path;
    const std::string next = "/var/spool/elsewhere/next";
    ASSERT_EQ(::symlink("target", next.c_str()), 0);
    give(next, kOwner);
    ASSERT_EQ(::symlink(next.c_str(), link.c_str()), 0);
    GetParam().write();
    EXPECT_FALSE(is_touched());
}

TEST_P(Links, OfRootAreWrittenThrough) {
    for (const uid_t caller : {uid_t{0}, kVictim}) {
        make_target();
        write_through_link_of(0, caller);
        EXPECT_TRUE(is_touched()) << caller;
        ::unlink(kTarget.c_str());
        write_through_link_of(0, caller);
        EXPECT_TRUE(files::exists(kTarget)) << caller;
    }
}

TEST_P(Links, OfTheCallerAreWrittenThrough) {
    make_target();
    write_through_link_of(kVictim, kVictim);
    EXPECT_TRUE(is_touched());
}

INSTANTIATE_TEST_SUITE_P(Library, Links, testing::ValuesIn(kWriters),
                         [](const auto& row) { return std::string(row.param.name); });

class OtherLinks : public testing::Test {
  protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "only root can make another person's link";
        make_mailbox();
        files::write("/var/spool/elsewhere/kept", "x");
    }
    static void link_elsewhere(const std::string& link, uid_t owner) {
        std::remove(link.c_str());
        ASSERT_EQ(::symlink("/var/spool/elsewhere", link.c_str()), 0);
        give(link, owner);
    }
    static bool is_kept() { return files::exists("/var/spool/elsewhere/kept"); }
};

TEST_F(OtherLinks, AStampIsNotRenewedThroughAnotherPersonsLink) {
    files::write(kTarget, "text");
    files::set_mtime(kTarget, 1000);
    const std::string stamp = kHome + "/.alert_notification";
    ASSERT_EQ(::symlink(kTarget.c_str(), stamp.c_str()), 0);
    give(stamp, kOwner);
    EXPECT_TRUE(Tessaly::TSMailUserId(kUser).alert_notification());
    EXPECT_EQ(files::read(kTarget), "text");
    give(stamp, 0);
    EXPECT_TRUE(Tessaly::TSMailUserId(kUser).alert_notification());
    EXPECT_EQ(files::read(kTarget), "");
}

TEST_F(OtherLinks, ATemporaryListIsNotWrittenThroughAnyLink) {
    for (const uid_t owner : {uid_t{0}, kOwner}) {
        files::write(kPref + "whitelist", "a\nb\n");
        files::write(kTarget, "text");
        const std::string temporary = kHiddenList + ".tmp";
        ASSERT_EQ(::symlink(kTarget.c_str(), temporary.c_str()), 0);
        give(temporary, owner);
        EXPECT_EQ(mail_list_delete_from(kUser, "whitelist", "a", kScope), 0);
        EXPECT_EQ(files::read(kPref + "whitelist"), "b\n");
        EXPECT_EQ(files::read(kTarget), "text");
    }
}

TEST_F(OtherLinks, ALinkedSubDirectoryIsNotEmptied) {
    for (const auto operation : {tsm_delete_maildir, tsm_clean_maildir}) {
        for (const char* sub : {"/cur", "/new", "/tmp"}) {
            files::make_maildir(kFolder);
            link_elsewhere(kFolder + sub, kOwner);
            operation(kFolder.c_str());
            EXPECT_TRUE(is_kept()) << sub;
            EXPECT_EQ(files::exists(kFolder + sub), operation == tsm_clean_maildir);
            ::unlink((kFolder + sub).c_str());
        }
    }
}

TEST_F(OtherLinks, ADirectoryIsEmptiedThroughTrustedLinksAlone) {
    for (const char* slash : {"", "/", "//"}) {
        link_elsewhere(kMail + "/link", kOwner);
        EXPECT_EQ(tsm_clean_dir((kMail + "/link" + slash).c_str(), 0), -1);
        EXPECT_EQ(errno, EACCES);
        EXPECT_TRUE(is_kept());
    }
    link_elsewhere(kMail + "/link", 0);
    EXPECT_EQ(tsm_clean_dir((kMail + "/link").c_str(), 0), 0);
    EXPECT_FALSE(is_kept());
}

TEST_F(OtherLinks, AMailRootThatIsALinkIsNotEmptied) {
    tsm_delete_path(kMail.c_str());
    link_elsewhere(kMail, kOwner);
    EXPECT_EQ(tsl_delete_user_file(MUF_MAILPATH, kUser), -1);
    EXPECT_TRUE(is_kept());
}

}  // namespace
