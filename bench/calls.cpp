// calls - what calls of the library cost in C++, beside those of bench/python.py: for each line
// with the name of a row one with the nanoseconds of a call, so that the two programs take turns.
#include <tessaly/MailUserId.h>
#include <tessaly/maillist.h>
#include <tessaly/mailstore.h>
#include <tessaly/userpref.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdio>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

namespace {

using Tessaly::TSMailUserId;

const std::string kUser = "ann@site.test";
const std::string kName = "1763275200.4242_123456_98765.mx1#Q#6B9Ha0q3004242,#F#S#2048#E";

struct Row {
    const char* name;
    std::function<void()> call;
};

// The compiler must not leave a call out.
template <class Value>
void used(const Value& value) {
    asm volatile("" : : "g"(&value) : "memory");
}

std::vector<Row> rows() {
    static const TSMailUserId id(kUser);
    static const std::string inbox = id.mailfolder("Inbox");
    static const std::string sizes = inbox + "/.ts_folder_size";
    return {
        {"system_folder_number", [] { used(tsl_is_system_folder("Work")); }},
        {"name_verdict", [] { used(tsl_is_valid_mailbox_name("Work/2024", 1)); }},
        {"size_in_name", [] { used(get_maildir_msg_len_from_name(kName.c_str())); }},
        {"received_time", [] { used(tsl_get_mail_received_date(kName.c_str())); }},
        {"unique_name",
         [] {
             char name[NAME_MAX + 1];
             used(*tsl_gen_mail_unique_name(2048, "6B9Ha0q3004242", name, sizeof name));
         }},
        {"user_file",
         [] {
             char path[PATH_MAX];
             used(mailuser_filename(MUF_PREF_FILE, path, sizeof path, kUser.c_str()));
         }},
        {"Mailbox()", [] { used(TSMailUserId(kUser)); }},
        {"Mailbox.tag", [] { used(id.tag()); }},
        {"Mailbox.address", [] { used(id.address()); }},
        {"Mailbox.mail", [] { used(id.mailpath()); }},
        {"Mailbox.folder_path", [] { used(id.mailfolder("Inbox")); }},
        {"Mailbox == Mailbox", [] { used(id == id); }},
        {"Mailbox.append_size", [] { used(id.append_maildirsize(0, 0)); }},
        {"Mailbox.size",
         [] {
             unsigned long long size = 0, count = 0;
             used(tsl_get_maildirsize(nullptr, id.mailpath().c_str(), &size, &count));
         }},
        {"Folder.exists", [] { used(tsl_is_mail_folder(inbox.c_str(), nullptr)); }},
        {"Folder.size",
         [] {
             unsigned long long size = 0, count = 0;
             used(tsl_read_mail_folder_size(sizes.c_str(), &size, &count));
         }},
        {"QuotaFlags.exceeded", [] { used(tsl_get_quota_exceeded(kUser.c_str())); }},
        {"address in AddressList",
         [] { used(mail_list_find(kUser.c_str(), "whitelist", "x@site.test", MAIL_LIST_USER)); }},
        {"user_timezone", [] { used(get_user_pref_lite_timezone(kUser.c_str())); }},
    };
}

constexpr int kCalls = 500;

double nanoseconds(const Row& row) {
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < kCalls; ++i) row.call();
    const std::chrono::duration<double, std::nano> spent = std::chrono::steady_clock::now() - begin;
    return spent.count() / kCalls;
}

}  // namespace

int main() {
    const std::vector<Row> all = rows();
    for (std::string name; std::getline(std::cin, name);) {
        for (const Row& row : all) {
            if (name == row.name) std::cout << nanoseconds(row) << std::endl;
        }
    }
}
