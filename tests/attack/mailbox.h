// A mailbox with a folder, and its owner.
#ifndef TSMAIL_TESTS_ATTACK_MAILBOX_H
#define TSMAIL_TESTS_ATTACK_MAILBOX_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "testing/files.h"
#include "testing/processes.h"

namespace attack {

inline constexpr uid_t kOwner = 1001;   // of the mailbox
inline constexpr uid_t kVictim = 1002;  // another local user
inline constexpr char kUser[] = "ann@site.test";
inline const std::string kHome = "/var/spool/home/site.test/ann~site.test";
inline const std::string kMail = kHome + "/mail";
inline const std::string kFolder = kMail + "/Inbox";
inline const std::string kPref = kHome + "/pref/ann~site.test.";
inline const std::string kHiddenList = kHome + "/pref/.ann~site.test.whitelist";

inline void give(const std::string& path, uid_t user) {
    ASSERT_EQ(::lchown(path.c_str(), user, user), 0) << path;
}

// Everybody may write into the directories, so that only the rule for links decides.
inline void make_mailbox() {
    tsm_delete_path(kHome.c_str());
    tsm_delete_path("/var/spool/elsewhere");
    testing_files::make_maildir(kFolder);
    testing_files::make_dirs(kHome + "/pref");
    testing_files::make_dirs("/var/spool/elsewhere");
    for (const std::string& dir : {kHome, kMail, kFolder, kHome + "/pref"}) {
        ASSERT_EQ(::chmod(dir.c_str(), 0777), 0);
        if (::geteuid() == 0) give(dir, kOwner);
    }
    ASSERT_EQ(::chmod("/var/spool/elsewhere", 0777), 0);
}

// Runs the body in a child that is this user for good; its exit code.
inline int run_as(uid_t user, const std::function<int()>& body) {
    testing_processes::Child child([&] {
        if (user != 0 && (::setgid(user) != 0 || ::setuid(user) != 0)) return 98;
        return body();
    });
    return child.wait();
}

}  // namespace attack

#endif
