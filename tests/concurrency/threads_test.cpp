// Threads of one process, each on a mailbox of its own. (The walk is left out: it changes the
// working directory, which belongs to all of them.)
#include <gtest/gtest.h>
#include <tessaly/MailUserId.h>
#include <tessaly/maillist.h>
#include <tessaly/mailstore.h>
#include <tessaly/support.h>
#include <tessaly/userpref.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "testing/files.h"

// The C library protects its time zone by a lock that ThreadSanitizer does not see.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() { return "race:tzset_internal\n"; }

namespace files = testing_files;
using Tessaly::TSMailUserId;

namespace {

constexpr int kThreads = 8;

struct Mailbox {
    explicit Mailbox(int n)
        : number(n), address("user" + std::to_string(n) + "@site.test"), id(address) {}
    const char* user() const { return address.c_str(); }
    std::string inbox() const { return id.mailfolder("Inbox"); }

    int number;
    std::string address;
    TSMailUserId id;
};

std::string delivered(const Mailbox& box, int round) {
    char queue[64], name[256];
    tsl_gen_queue_id(nullptr, queue, sizeof queue);
    tsl_gen_mail_unique_name(10, queue, name, sizeof name);
    const std::string unique = std::to_string(round) + name;
    EXPECT_GT(tsl_get_mail_received_date(name), 0);
    EXPECT_GT(tsl_get_mail_creation_date(name), 0);
    EXPECT_NE(std::string(name).find('.' + std::to_string(::getpid()) + '_'), std::string::npos);
    files::write(box.inbox() + "/cur/" + unique, "ten bytes\n");
    tsl_append_mail_folder_size((box.inbox() + "/.ts_folder_size").c_str(), 10, 1);
    return box.inbox() + "/cur/" + unique;
}

void use_messages(const Mailbox& box, int round) {
    EXPECT_EQ(tsl_mkdir_maildir(box.inbox().c_str()), 0);
    EXPECT_EQ(tsl_is_maildir_folder(box.inbox().c_str()), 1);
    const std::string path = delivered(box, round);
    files::write(box.inbox() + "/cur/untagged", "ten bytes\n");
    EXPECT_EQ(tsl_get_dir_size(box.inbox().c_str(), "cur", 4), 20);
    EXPECT_EQ(tsl_get_mailbox_size_actual(box.inbox().c_str(), nullptr, 2), 20);
    EXPECT_EQ(tsl_is_mbox(path.c_str()), 0);
    EXPECT_EQ(tsl_maildir_unlink_mail(path.c_str()), 0);
    EXPECT_EQ(tsm_clean_maildir(box.inbox().c_str()), 0);
    EXPECT_EQ(files::list(box.inbox() + "/cur").size(), 0U);
}

void use_sizes(const Mailbox& box, int round) {
    TSMailUserId id = box.id;
    id.append_maildirsize(10, 1);
    unsigned long long size = 0, count = 0;
    EXPECT_EQ(tsl_get_maildirsize(nullptr, id.mailpath().c_str(), &size, &count), 0);
    EXPECT_EQ(count, static_cast<unsigned long long>(round) + 1);
    EXPECT_EQ(size, 10 * count);
    tsl_set_mail_unread_scandate(box.inbox().c_str(), round);
    long date = 0;
    EXPECT_EQ(tsl_get_mail_unread_scandate(box.inbox().c_str(), &date), 0);
    EXPECT_EQ(date, round);
    id.getFolderSize("Inbox");
    tsl_update_mail_folder_size(box.inbox().c_str(), round);
}

void use_lists(const Mailbox& box, int round) {
    const std::string entry = std::to_string(round) + ",a" + std::to_string(box.number) + "@x.test";
    EXPECT_EQ(mail_list_add_to(box.user(), "whitelist", entry.c_str(), MAIL_LIST_USER), 0);
    EXPECT_EQ(mail_list_find(box.user(), "whitelist", entry.c_str(), MAIL_LIST_USER), 1);
    EXPECT_EQ(mail_list_match(box.user(), "whitelist", entry.c_str(), MAIL_LIST_USER), 1);
    mail_list_names names;
    EXPECT_EQ(mail_list_get_names(box.user(), "whitelist", &names, 1, MAIL_LIST_USER), 0);
    EXPECT_EQ(names.count, 1U);
    mail_list_free_names(&names);
    std::string changed = "7,b@x.test";
    EXPECT_EQ(mail_list_modify_from(box.user(), "whitelist", changed.data(), 1, MAIL_LIST_USER), 0);
    EXPECT_EQ(mail_list_delete_through_id(box.user(), "whitelist", 3, MAIL_LIST_USER), 0);
    EXPECT_EQ(mail_list_delete_from(box.user(), "whitelist", "6,B@x.test", MAIL_LIST_USER), 0);
    EXPECT_EQ(mail_list_find(box.user(), "whitelist", "6,b@x.test", MAIL_LIST_USER), 0);
}

void use_preferences(const Mailbox& box, int round) {
    user_pref p, q;
    get_default_user_pref_with_tz(&p);
    p.theme = round;
    p.timezone = box.number;
    EXPECT_EQ(store_user_pref(box.user(), &p), 0);
    EXPECT_EQ(read_user_pref_all(box.user(), &q), 0);
    EXPECT_EQ(q.theme, round);
    EXPECT_EQ(get_user_pref_lite_timezone(box.user()), box.number);
}

void use_flags(const Mailbox& box, int round) {
    tsl_set_quota_warning(box.user(), round);
    EXPECT_EQ(tsl_get_quota_warning(box.user()), round);
    tsl_set_arch_quota_exceeded(box.user());
    EXPECT_EQ(tsl_get_arch_quota_exceeded(box.user()), 1);
    tsl_unset_arch_quota_exceeded(box.user());
    EXPECT_FALSE(box.id.quota_exceeded());
    box.id.alert_notification();
    tsm_archive_avail_quota(nullptr);
    EXPECT_EQ(is_mail_list_changed(nullptr), 0);
    EXPECT_EQ(tsl_is_valid_mailbox_name("Work/2024", 3), 0);
}

void use_deletion(const Mailbox& box, int) {
    const std::string folder = box.id.mailfolder("Old");
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(tsl_mkdir_maildir(folder.c_str()), 0);
        files::write(folder + "/sub/file", "x");
        if (i == 0) {
            EXPECT_EQ(tsm_delete_maildir(folder.c_str()), 0);
        }
    }
    EXPECT_EQ(tsm_schedule_for_deletion(folder.c_str(), box.id.mailpath().c_str(), "x"), 0);
    EXPECT_EQ(tsm_delete_path((box.id.mailpath() + "/.deleted.x.Old.1").c_str()), 0);
    char kind[1024];
    EXPECT_EQ(mailuser_filename(MUF_WHITELIST, kind, sizeof kind, box.user()), 0);
    EXPECT_EQ(tsl_delete_user_file(MUF_WHITELIST, box.user()), 0);
    EXPECT_FALSE(files::exists(kind));
}

void use_all(int number) {
    const Mailbox box(number);
    EXPECT_EQ(create_mail_dir(box.user(), 1), 0);
    EXPECT_EQ(create_pref_dir(box.user(), 1), 0);
    for (int round = 0; round < 250; ++round) {
        for (const auto use :
             {use_messages, use_sizes, use_lists, use_preferences, use_flags, use_deletion}) {
            use(box, round);
        }
    }
}

TEST(Threads, OnMailboxesOfTheirOwn) {
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) threads.emplace_back(use_all, i);
    for (std::thread& thread : threads) thread.join();
}

}  // namespace
