// Prints what the class knows about a mailbox.
#include <tessaly/MailUserId.h>

#include <iostream>
#include <set>

using Tessaly::TSMailUserId;

static void print_names(const TSMailUserId& id) {
    std::cout << id.address() << " is " << id.local(true) << " in " << id.domain() << ", tag \""
              << id.tag() << "\", directory " << id.tilde_name() << ", user type " << id.userType()
              << '\n';
}

static void print_paths(const TSMailUserId& id) {
    std::cout << id.homepath() << '\n'
              << id.mailpath() << '\n'
              << id.prefpath() << '\n'
              << id.indexfolder("Inbox") << '\n'
              << id.trashfolder() << '\n'
              << id.mailfolder("Work/2024") << '\n'
              << id.local_maildrop("") << " is " << id.maildrop("") << '\n'
              << id.fname(MUF_PREF_FILE) << '\n';
}

int main() {
    TSMailUserId id("Ann+Work@Site.Test");
    print_names(id);
    print_paths(id);
    if (create_mail_dir(id.address().c_str(), 1) != 0) return 73;
    id.append_maildirsize(1204, 1);
    id.quota_exceeded(true);
    std::cout << "exceeded " << id.quota_exceeded() << ", notice due " << id.alert_notification()
              << ", " << id.getFolderSize("Inbox") << " KiB\n";
    id.quota_reset();

    TSMailUserId same;
    same.type(Tessaly::MAILBOX_USER);
    same.init("ann+Work@site.test");
    const std::set<TSMailUserId> one{id, same};  // by operator<
    same.parse("bert@site.test");
    if (one.size() != 1 || same == id || !(same != id)) return 1;

    try {
        TSMailUserId(Tessaly::MAILBOX_DIRECT, "/somewhere").homepath();
    } catch (const Tessaly::Exception& e) {
        std::cout << "no home:" << e.what() << '\n';
        return 0;
    }
    return id.type() == Tessaly::MAILBOX_USER;
}
