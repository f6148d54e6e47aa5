// The command's work from its start to its end: one delivery, its mere start, and the recount of
// all mailboxes.
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench/bench.h"
#include "bench/dovecot.h"

namespace {

namespace fs = std::filesystem;
using bench::Item;
using std::string;

constexpr char kUser[] = "ann@site.test";
constexpr char kMailboxes[] = "/var/spool/home/site.test";
constexpr char kMail[] = "/var/spool/home/site.test/ann~site.test/mail";
constexpr char kInbox[] = "/var/spool/home/site.test/ann~site.test/mail/Inbox";
constexpr char kMessage[] = "/var/spool/bench/message";

void make_message(long size) {
    string text = "From: ann@site.test\nTo: ann@site.test\nSubject: figures\n\n";
    while (static_cast<long>(text.size()) < size) text += "A line of a message, as they are.\n";
    text.resize(static_cast<std::size_t>(size) - 1);
    bench::write_file(kMessage, text + "\n");
}

void make_empty_folder(const string& path) {
    for (const char* sub : {"/cur", "/new", "/tmp"}) {
        fs::remove_all(path + sub);
        fs::create_directories(path + sub);
    }
}

// The number of messages of the full size in new.
long long delivered_in(const string& folder) {
    long long count = 0;
    for (const auto& entry : fs::directory_iterator(folder + "/new")) {
        count += entry.file_size() >= fs::file_size(kMessage);
    }
    return count;
}

// Writes, flushes and links the message, and flushes the directory.
long long bare_delivery(const string& text) {
    static unsigned long number = 0;
    const string name =
        string(kInbox) + "/new/" + std::to_string(::getpid()) + "." + std::to_string(++number);
    const string tmp = string(kInbox) + "/tmp";
    const int fd = ::open(tmp.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    bench::require(::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()), tmp);
    bench::require(::fsync(fd) == 0, tmp);
    const string own = "/proc/self/fd/" + std::to_string(fd);
    bench::require(::linkat(AT_FDCWD, own.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0,
                   name);
    const int dir = ::open((string(kInbox) + "/new").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    bench::require(::fsync(dir) == 0, name);
    ::close(dir);
    ::close(fd);
    return 0;
}

Item deliver(long size) {
    make_message(size);
    make_empty_folder(kInbox);
    std::ifstream file(kMessage);
    const string text((std::istreambuf_iterator<char>(file)), {});
    const auto prepare = [] {
        make_empty_folder(kInbox);
        fs::remove(string(kInbox) + "/.ts_folder_size");
        fs::remove(string(kMail) + "/.maildirsize");
    };
    const auto check = [] { return delivered_in(kInbox); };
    Item item = {"deliver", size, {{"limit", [=] { return bare_delivery(text); }, prepare, check}}};
    bench::add_program(item, "library", {{TSMAIL_TOOL, "deliver", kUser}, {}, kMessage}, prepare,
                       check);
    bench::add_program(item, "agent", {{TSMAIL_AGENT, kUser}, {}, kMessage}, prepare, check);

    const string home = bench::fresh_dir("lda");
    const auto make_home = [=] { make_empty_folder(home + "/Maildir"); };
    const auto in_home = [=] { return delivered_in(home + "/Maildir"); };
    bench::add_program(item, "dovecot-lda",
                       {{"/usr/lib/dovecot/dovecot-lda", "-c", bench::dovecot_conf()},
                        {},
                        kMessage,
                        bench::dovecot_version(),
                        {},
                        bench::home_is(home)},
                       make_home, in_home);
    bench::add_program(item, "mdeliver", {{"mdeliver", home + "/Maildir"}, {}, kMessage}, make_home,
                       in_home);
    return item;
}

// ---- The start of a program ---------------------------------------------------------------------

Item start(long) {
    const auto none = [](const string&, int) { return 0LL; };
    Item item = {"start", 1, {}};
    bench::add_program(item, "limit", {{"true"}, {}, "/dev/null", {}, none}, {}, {});
    bench::add_program(item, "library", {{TSMAIL_TOOL, "--version"}, {}, "/dev/null", {}, none}, {},
                       {});
    bench::add_program(item, "dovecot",
                       {bench::dovecot_version(), {}, "/dev/null", bench::dovecot_version(), none},
                       {}, {});
    return item;
}

// ---- Recounting all mailboxes -------------------------------------------------------------------

constexpr long kMessagesEach = 1000;

string mailbox(long number) {
    return string(kMailboxes) + "/u" + std::to_string(number) + "~site.test/mail";
}

void make_mailboxes(long count) {
    fs::remove_all(kMailboxes);
    for (long i = 0; i < count; ++i) bench::fill_folder(mailbox(i) + "/Inbox", kMessagesEach, {});
    ::sync();  // nothing is written back while times are taken
}

void make_records_wrong(long count) {
    for (long i = 0; i < count; ++i) {
        for (const char* record : {"/.maildirsize", "/Inbox/.ts_folder_size"}) {
            bench::write_file(mailbox(i) + record, "0S, 0C\n1 1\n");
        }
    }
}

long entries_of(const string& path) {
    alignas(8) static char buffer[32768];
    const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    bench::require(fd >= 0, path);
    long entries = 0;
    for (ssize_t n; (n = ::getdents64(fd, buffer, sizeof buffer)) > 0;) {
        for (ssize_t at = 0; at < n; ++entries) {
            at += reinterpret_cast<const dirent64*>(buffer + at)->d_reclen;
        }
    }
    ::close(fd);
    return entries;
}

void bare_record(const string& path, const string& text) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    bench::require(fd >= 0 && ::flock(fd, LOCK_EX) == 0, path);
    bench::require(::write(fd, text.data(), text.size()) > 0, path);
    ::close(fd);
}

constexpr const char* kDirectories[] = {"", "/Inbox", "/Inbox/cur", "/Inbox/new"};

// Brings the directories into the cache: a machine may take cold pages back between two columns.
void warm(long count) {
    for (long i = 0; i < count; ++i) {
        for (const char* sub : kDirectories) entries_of(mailbox(i) + sub);
    }
}

long long bare_recount(long count, long long total) {
    const string text = "0S, 0C\n" + std::to_string(total) + " 1000\n";
    for (long i = 0; i < count; ++i) {
        const string mail = mailbox(i);
        long entries = 0;
        for (const char* sub : kDirectories) {
            entries += entries_of(mail + sub);
        }
        bench::require(entries > kMessagesEach, mail);
        bare_record(mail + "/Inbox/.ts_folder_size", text);
        bare_record(mail + "/.maildirsize", text);
    }
    return 0;
}

Item recount(long count) {
    make_mailboxes(count);
    long long each = 0;
    for (long i = 0; i < kMessagesEach; ++i) each += 2048 + i % 9000;
    const auto prepare = [=] {
        make_records_wrong(count);
        warm(count);
    };
    const auto check = [=] {
        long long sum = 0;
        for (long i = 0; i < count; ++i) sum += bench::total_of(mailbox(i) + "/.maildirsize");
        return sum;
    };
    Item item = {
        "recount", count, {{"limit", [=] { return bare_recount(count, each); }, prepare, check}}};
    item.operations = static_cast<double>(count);
    bench::add_program(item, "library", {{TSMAIL_TOOL, "-q", "recount", "--all"}, {}}, prepare,
                       check);
    bench::add_program(item, "one job", {{TSMAIL_TOOL, "-q", "recount", "--all", "--jobs=1"}, {}},
                       prepare, check);
    bench::add_doveadm(item, count, kMessagesEach);
    return item;
}

const bench::Registration kDeliver({"deliver", {1000, 30000, 1000000}, {1000}, deliver, 30000});
const bench::Registration kStart({"start", {1}, {}, start, 1});
const bench::Registration kRecount({"recount", {10, 100, 1000}, {4}, recount, 10});

}  // namespace
