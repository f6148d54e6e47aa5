// Which calls of the support library are made, and in which order. This program defines two of the
// imported names itself, as a process of the appliance may. The library must call these.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <tessaly/MailUserId.h>
#include <tessaly/mailstore.h>
#include <tessaly/support.h>
#include <unistd.h>

#include <functional>

#include "testing/files.h"

namespace files = testing_files;

namespace {

std::vector<std::string> calls;

const files::TempDir& mail_root() {
    static const files::TempDir dir;
    return dir;
}

// The text behind "<mail root>/": the name, with a slash in front if there is a second one.
std::string below_mail(const std::string& path) {
    const std::string mail = mail_root() / "mail/";
    return path.starts_with(mail) ? path.substr(mail.size()) : path;
}

template <class Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

FILE* open_and_lock_file(const char* path, const char* mode) {
    calls.push_back("open " + below_mail(path) + " " + mode);
    return next<decltype(&open_and_lock_file)>("open_and_lock_file")(path, mode);
}

int close_and_unlock_file(FILE* stream) {
    calls.push_back("close");
    return next<decltype(&close_and_unlock_file)>("close_and_unlock_file")(stream);
}

namespace {

struct Row {
    const char* name;
    const char* text;  // of the size files and the scan date before the call
    std::function<void(const std::string& mail)> call;
    std::vector<std::string> expected;
    friend void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }
};

const std::string kLong(5000, '\n');

const Row kRows[] = {
    {"AppendMailbox",
     "",
     [](auto& mail) { tsl_append_maildirsize((mail + "/.maildirsize").c_str(), 1, 1); },
     {"open .maildirsize a+", "close"}},
    {"AppendByMember",
     "",
     [](auto& mail) {
         Tessaly::TSMailUserId(Tessaly::MAILBOX_GIVEN_PATH, mail).append_maildirsize(1, 1);
     },
     {"open .maildirsize a+", "close"}},
    {"AppendFolder",
     "",
     [](auto& mail) { tsl_append_mail_folder_size((mail + "/.ts_folder_size").c_str(), 1, 1); },
     {"open .ts_folder_size a+", "close"}},
    {"Compact",
     kLong.c_str(),
     [](auto& mail) { tsl_append_maildirsize((mail + "/.maildirsize").c_str(), 1, 1); },
     {"open .maildirsize a+", "close"}},
    // A reader ends the lock by closing the stream itself.
    {"ReadFolder",
     "1 1\n",
     [](auto& mail) {
         tsl_read_mail_folder_size((mail + "/.ts_folder_size").c_str(), nullptr, nullptr);
     },
     {"open .ts_folder_size r"}},
    {"ReadMailbox",
     "1 1\n",
     [](auto& mail) { tsl_get_maildirsize(nullptr, mail.c_str(), nullptr, nullptr); },
     {"open .maildirsize r"}},
    {"ReadDamaged",
     "-1 1\n",
     [](auto& mail) { tsl_get_maildirsize(nullptr, mail.c_str(), nullptr, nullptr); },
     {"open .maildirsize r", "open /.maildirsize.dirty w", "close"}},
    // The file is not looked at.
    {"ReadMarked",
     "1 1\n",
     [](auto& mail) {
         files::write(mail + "/.maildirsize.dirty", "");
         tsl_get_maildirsize(nullptr, mail.c_str(), nullptr, nullptr);
     },
     {}},
    {"Write",
     "1 1\n",
     [](auto& mail) { tsl_write_mail_folder_size((mail + "/.ts_folder_size").c_str(), 1, 1); },
     {"open .ts_folder_size w", "close"}},
    {"MarkByPath",
     "",
     [](auto& mail) { tsl_reset_quota_flag_by_path(mail.c_str()); },
     {"open .maildirsize.dirty w", "close"}},
    {"MarkByMember",
     "",
     [](auto& mail) { Tessaly::TSMailUserId(Tessaly::MAILBOX_GIVEN_PATH, mail).quota_reset(); },
     {}},
    {"SetScanDate",
     "",
     [](auto& mail) { tsl_set_mail_unread_scandate(mail.c_str(), 1); },
     {"open .ts_unread_scan_date w", "close"}},
    {"GetScanDate",
     "5\n",
     [](auto& mail) { tsl_get_mail_unread_scandate(mail.c_str(), nullptr); },
     {"open .ts_unread_scan_date r"}},
    {"Cache",
     "",
     [](auto& mail) {
         tsl_write_maildir_cache_file((mail + "/.ts_cache").c_str(), 1, 1);
         tsl_read_maildir_cache_file((mail + "/.ts_cache").c_str(), nullptr, nullptr);
     },
     {}},
};

class Calls : public testing::TestWithParam<Row> {};

TEST_P(Calls, AreMadeInOrder) {
    const std::string mail = mail_root() / "mail";
    for (const char* name : {"/.maildirsize", "/.ts_folder_size", "/.ts_unread_scan_date"}) {
        files::write(mail + name, GetParam().text);
    }
    calls.clear();
    const std::size_t descriptors = files::open_descriptors();
    GetParam().call(mail);
    EXPECT_EQ(calls, GetParam().expected);
    EXPECT_EQ(files::open_descriptors(), descriptors);
}

INSTANTIATE_TEST_SUITE_P(Rows, Calls, testing::ValuesIn(kRows),
                         [](const auto& row) { return row.param.name; });

}  // namespace
