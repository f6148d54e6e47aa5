// A file that is not a regular one, or a huge one, counts as a file that cannot be read. The
// library does not wait, loop or take memory without bound.
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <tessaly/MailUserId.h>
#include <tessaly/maillist.h>
#include <tessaly/userpref.h>

#include <functional>

#include "attack/mailbox.h"

namespace files = testing_files;
using namespace attack;

namespace {

struct Reader {
    const char* name;
    std::string path;
    std::function<int()> read;
    int unreadable;
    int monstrous;
    friend void PrintTo(const Reader& row, std::ostream* out) { *out << row.name; }
};

// 0 if the sums are those of a file that cannot be opened, -1 for "unknown".
template <class Read>
int sums(Read read) {
    unsigned long long size = 7, count = 7;
    const int result = read(&size, &count);
    return size == 0 && count == 0 ? result : 77;
}

int scan_cache() {
    long mtime = 7;
    unsigned long size = 7;
    return tsl_read_maildir_cache_file((kFolder + "/.ts_cache").c_str(), &mtime, &size);
}

int names() {
    mail_list_names out;
    const int result = mail_list_get_names(kUser, "whitelist", &out, 1, MAIL_LIST_USER);
    mail_list_free_names(&out);
    return result;
}

int preferences() {
    user_pref pref;
    return read_user_pref(&pref, kUser);
}

const std::string kList = kPref + "whitelist";
const std::string kFolderSize = kFolder + "/.ts_folder_size";

const Reader kReaders[] = {
    {"MailboxSize", kMail + "/.maildirsize",
     [] {
         return sums([](auto* size, auto* count) {
             return tsl_get_maildirsize(nullptr, kMail.c_str(), size, count);
         });
     },
     0, -1},
    {"FolderSize", kFolderSize,
     [] {
         return sums([](auto* size, auto* count) {
             return tsl_read_mail_folder_size(kFolderSize.c_str(), size, count);
         });
     },
     0, -1},
    {"CacheFile", kFolder + "/.ts_cache", scan_cache, 0, 0},
    {"CachedSize", kFolder + "/.ts_cache",
     [] { return static_cast<int>(tsl_get_mailbox_size(kFolder.c_str(), nullptr)); }, 0, 0},
    {"ScanDate", kFolder + "/.ts_unread_scan_date",
     [] {
         long date;
         return tsl_get_mail_unread_scandate(kFolder.c_str(), &date);
     },
     -1, -1},
    {"WarningFlag", kHome + "/quota_warning_flag", [] { return tsl_get_quota_warning(kUser); }, 0,
     0},
    {"Preferences", kPref + "pref", preferences, -1, -1},
    {"Timezone", kPref + "pref", [] { return get_user_pref_lite_timezone(kUser); }, 12, 12},
    {"ListFind", kList, [] { return mail_list_find(kUser, "whitelist", "x", MAIL_LIST_USER); }, 0,
     0},
    {"ListMatch", kList, [] { return mail_list_match(kUser, "whitelist", "x", MAIL_LIST_USER); }, 0,
     0},
    {"ListNames", kList, names, -1, -1},
    {"ListDelete", kList,
     [] { return mail_list_delete_from(kUser, "whitelist", "x", MAIL_LIST_USER); }, -1, -1},
    {"ListAdd", kList, [] { return mail_list_add_to(kUser, "whitelist", "x", MAIL_LIST_USER); }, -1,
     -2},
    {"Mbox", kMail + "/mbox", [] { return tsl_is_mbox((kMail + "/mbox").c_str()); }, 0, 0},
};

// The reader's answer, from a process that is killed if it takes too long or too much.
int read_bounded(const Reader& reader) {
    int answer = 0;
    int ends[2];
    if (::pipe(ends) != 0) return 99;
    testing_processes::Child child([&] {
        ::alarm(60);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
        const rlimit limit = {256UL << 20, 256UL << 20};
        if (::setrlimit(RLIMIT_AS, &limit) != 0) return 1;
#endif
        const int result = reader.read();
        return ::write(ends[1], &result, sizeof result) == sizeof result ? 0 : 1;
    });
    const int code = child.wait();
    ::close(ends[1]);
    const bool told = ::read(ends[0], &answer, sizeof answer) == sizeof answer;
    ::close(ends[0]);
    return code == 0 && told ? answer : 1000 + code;
}

class Reading : public testing::TestWithParam<Reader> {
  protected:
    void SetUp() override { make_mailbox(); }
    const std::string path = GetParam().path;
};

TEST_P(Reading, OfADeviceBehindALinkFails) {
    for (const char* device : {"/dev/zero", "/dev/full", "/dev/random"}) {
        ASSERT_EQ(::symlink(device, path.c_str()), 0);
        EXPECT_EQ(read_bounded(GetParam()), GetParam().unreadable) << device;
        ::unlink(path.c_str());
    }
}

TEST_P(Reading, OfADirectoryFails) {
    files::make_dirs(path);
    EXPECT_EQ(read_bounded(GetParam()), GetParam().unreadable);
}

TEST_P(Reading, OfAFifoWaitsForNobody) {
    ASSERT_EQ(::mkfifo(path.c_str(), 0666), 0);
    EXPECT_EQ(read_bounded(GetParam()), GetParam().unreadable);
    const int both_ends = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_EQ(read_bounded(GetParam()), GetParam().unreadable);
    ::close(both_ends);
}

TEST_P(Reading, OfAFifoBehindALinkWaitsForNobody) {
    ASSERT_EQ(::mkfifo((kHome + "/fifo").c_str(), 0666), 0);
    ASSERT_EQ(::symlink((kHome + "/fifo").c_str(), path.c_str()), 0);
    EXPECT_EQ(read_bounded(GetParam()), GetParam().unreadable);
}

TEST_P(Reading, OfASocketFails) {
    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path.copy(address.sun_path, sizeof address.sun_path), sizeof address.sun_path);
    ASSERT_EQ(::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(read_bounded(GetParam()), GetParam().unreadable);
    ::close(socket);
}

TEST_P(Reading, OfATerabyteOfHolesIsBounded) {
    files::write(path, "");
    if (::truncate(path.c_str(), off_t{1} << 40) != 0) GTEST_SKIP() << "no file of this length";
    EXPECT_EQ(read_bounded(GetParam()), GetParam().monstrous);
}

// A writer who never stops adds as fast as the reader reads.
TEST_P(Reading, OfBlanksIsBoundedToo) {
    files::write(path, std::string(std::size_t{70} << 20, ' '));
    EXPECT_EQ(read_bounded(GetParam()), GetParam().monstrous);
}

INSTANTIATE_TEST_SUITE_P(Library, Reading, testing::ValuesIn(kReaders),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(ReadingThroughALink, OfARegularFileWorks) {
    make_mailbox();
    files::write(kHome + "/sizes", "5 1\n");
    ASSERT_EQ(::symlink("../sizes", (kMail + "/.maildirsize").c_str()), 0);
    unsigned long long size = 0, count = 0;
    EXPECT_EQ(tsl_get_maildirsize(nullptr, kMail.c_str(), &size, &count), 0);
    EXPECT_EQ(size, 5U);
    EXPECT_EQ(count, 1U);
}

}  // namespace
