#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <tessaly/MailUserId.h>
#include <tessaly/mailstore.h>

#include <cerrno>
#include <cstring>

#include "fault/operations.h"
#include "testing/files.h"

using namespace testing_files;
using Tessaly::TSMailUserId;

namespace fault {

namespace {

constexpr const char* kMaildirSize = FAULT_MAIL "/.maildirsize";
constexpr const char* kDirty = FAULT_MAIL "/.maildirsize.dirty";
constexpr const char* kFolderSize = FAULT_INBOX "/.ts_folder_size";
constexpr const char* kCache = FAULT_INBOX "/.ts_cache";
constexpr long long kUntouched = -7;

void prepare_sizes() {
    make_maildir(FAULT_INBOX);
    write(kMaildirSize, "0S, 0C\n500 2\n-100 -1\n");
    write(kFolderSize, "500 2\n-100 -1\n");
}

// Files that the next append compacts: longer than 4096 bytes.
void prepare_long_sizes() {
    std::string records;
    while (records.size() <= 4096) records += "1234 1\n-34 0\n";
    write(kMaildirSize, "0S, 0C\n" + records);
    write(kFolderSize, records);
}

// Messages with and without a size in their names, worth 10, 20, 300 and 4000 bytes.
void prepare_messages() {
    make_maildir(FAULT_INBOX);
    write(FAULT_INBOX "/cur/1.1_1_1.h,#F#S#10#E:2,S", "ten bytes\n");
    write(FAULT_INBOX "/new/2.1_1_1.h,#F#S#20#E", "just twenty bytes..\n");
    write(FAULT_INBOX "/cur/3.1_1_1.h:2,S", std::string(300, 'a'));
    write(FAULT_INBOX "/cur/4.1_1_1.h", std::string(4000, 'b'));
    write(kFolderSize, "4330 4\n");
    for (const char* dir : {"", "/cur", "/new", "/tmp"}) {
        set_mtime(std::string(FAULT_INBOX) + dir, 1000000000);
    }
}

void prepare_messages_and_cache() {
    prepare_messages();
    write(kCache, "mtime=1000000000\nsize=4330\n");
    set_mtime(FAULT_INBOX, 1000000000);
}

// The quota daemon's socket. It keeps what is sent to it; each attempt drops what came before.
void empty_daemon_socket() {
    static const int daemon = [] {
        sockaddr_un address{AF_UNIX, "/tmp/quotad.socket"};
        const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) throw errno;
        return fd;
    }();
    char message[600];
    while (::recv(daemon, message, sizeof message, MSG_DONTWAIT) >= 0) {
    }
}

std::vector<Answer> sums_of_some(const std::vector<long long>& sizes) {
    std::vector<Answer> sums{{0}};
    for (const long long size : sizes) {
        for (std::size_t i = sums.size(); i-- > 0;) sums.push_back({sums[i].result + size});
    }
    return sums;
}

// Every message still exists, under its old name or the tagged one. Only a lasting fault may leave
// one in tmp.
std::string messages_kept(const Run& run, const Run& clean) {
    const auto contents = [](const Tree& tree) {
        std::multimap<std::string, std::string> found;
        for (const auto& [path, content] : tree) {
            if (path.find(".1_1_1.h") != std::string::npos) found.emplace(content, path);
        }
        return found;
    };
    const auto before = contents(run.before), after = contents(run.after);
    bool kept = before.size() == after.size();
    for (auto a = before.begin(), b = after.begin(); kept && a != before.end(); ++a, ++b) {
        const bool in_tmp = b->second.find("/tmp/") != std::string::npos;
        kept = a->first == b->first && (!in_tmp || !run.returned || run.lasting);
    }
    if (!kept) return difference(run.after, run.before);
    Run others = run;
    for (Tree* tree : {&others.before, &others.after}) {
        std::erase_if(*tree, [](const auto& entry) {
            return entry.first.find(".1_1_1.h") != std::string::npos;
        });
    }
    return file_begun(kCache)(others, clean);
}

template <int Read(const char*, unsigned long long*, unsigned long long*)>
long long read_totals(const char* path, Output& out) {
    auto size = static_cast<unsigned long long>(kUntouched), count = size;
    const int result = Read(path, &size, &count);
    out = numbers(static_cast<long long>(size), static_cast<long long>(count));
    return result;
}

int get_maildirsize(const char* dir, unsigned long long* size, unsigned long long* count) {
    return tsl_get_maildirsize(nullptr, dir, size, count);
}

// A file that cannot be opened counts as 0; one that cannot be read is damaged; one that seems to
// be missing, or marked, is left alone.
const std::vector<Answer> kTotalsUnknown = {
    {0, numbers(0, 0)}, {-1, numbers(0, 0)}, {-1, numbers(kUntouched, kUntouched)}};

std::vector<Operation> appends() {
    std::vector<Operation> rows;
    const auto add = [&](const char* variant, void (*prepare)()) {
        const unsigned traits = kWrites;
        rows.push_back({.names = "tsl_append_maildirsize",
                        .variant = variant,
                        .prepare = prepare,
                        .run = [](Output&) -> long long {
                            return tsl_append_maildirsize(kMaildirSize, 1000000, 1);
                        },
                        .rule = sums_kept(kMaildirSize),
                        .traits = traits});
        rows.push_back({.names = "tsl_append_mail_folder_size",
                        .variant = variant,
                        .prepare = prepare,
                        .run = [](Output&) -> long long {
                            return tsl_append_mail_folder_size(kFolderSize, -1000000, -1);
                        },
                        .rule = sums_kept(kFolderSize),
                        .traits = traits});
    };
    add("", prepare_sizes);
    add("new", [] { make_maildir(FAULT_INBOX); });
    add("compacts", prepare_long_sizes);
    return rows;
}

Operation folder_sum(const char* variant, int flags, Rule rule, unsigned traits) {
    return {.names = "tsl_get_dir_size",
            .variant = variant,
            .prepare = prepare_messages,
            .run =
                [flags](Output&) {
                    // Just changed, however slow the machine is: so there is a second, careful
                    // pass.
                    ::utimensat(AT_FDCWD, FAULT_INBOX "/cur", nullptr, 0);
                    return tsl_get_dir_size(FAULT_INBOX, "cur", flags);
                },
            .good = 4310,
            .others = sums_of_some({10, 300, 4000}),
            .rule = std::move(rule),
            .traits = traits};
}

}  // namespace

std::vector<Operation> mailsize_operations() {
    constexpr int kTagFlag = 4, kStatFlag = 2;
    std::vector<Operation> rows = appends();
    const std::vector<Operation> others = {
        {.names = "Tessaly::TSMailUserId::append_maildirsize",
         .prepare = prepare_sizes,
         .run = [](Output&) -> long long { return TSMailUserId(kUser).append_maildirsize(1, 1); },
         .rule = sums_kept(kMaildirSize),
         .traits = kWrites | kThrows},
        {.names = "tsl_write_mail_folder_size",
         .prepare = prepare_sizes,
         .run = [](Output&) -> long long { return tsl_write_mail_folder_size(kFolderSize, 7, 1); },
         .rule = file_begun(kFolderSize),
         .traits = kWrites},
        {.names = "tsl_read_mail_folder_size",
         .prepare = prepare_sizes,
         .run =
             [](Output& out) { return read_totals<tsl_read_mail_folder_size>(kFolderSize, out); },
         .others = kTotalsUnknown,
         .rule = with_marker(kDirty, in_steps)},
        {.names = "tsl_read_mail_folder_size",
         .variant = "long",
         .prepare =
             [] {
                 std::string records;
                 while (records.size() < 30000) records += "1234 1\n";
                 write(kFolderSize, records);
             },
         .run =
             [](Output& out) { return read_totals<tsl_read_mail_folder_size>(kFolderSize, out); },
         .others = kTotalsUnknown,
         .rule = with_marker(kDirty, in_steps)},
        {.names = "tsl_get_maildirsize",
         .prepare = prepare_sizes,
         .run = [](Output& out) { return read_totals<get_maildirsize>(FAULT_MAIL, out); },
         .others = kTotalsUnknown,
         .rule = with_marker(kDirty, in_steps)},
        {.names = "tsl_reset_quota_flag_by_path",
         .prepare = prepare_sizes,
         .run = [](Output&) -> long long { return tsl_reset_quota_flag_by_path(FAULT_MAIL); },
         .others = {{-1}},
         .rule = in_steps,
         .traits = kWrites},
        {.names = "tsl_reset_quota_flag_by_user Tessaly::TSMailUserId::quota_reset",
         .prepare = prepare_sizes,
         .run = [](Output&) -> long long { return tsl_reset_quota_flag_by_user(kUser); },
         .rule = in_steps,
         .traits = kWrites | kThrows},
        {.names = "tsl_get_maildir_cache_file",
         .run = [](Output& out) -> long long {
             return tsl_get_maildir_cache_file("/a/b", out.text.data(), Output::kRoom);
         },
         .good = 14,
         .traits = kNoCalls | kAllocatesNothing},
        {.names = "tsl_write_maildir_cache_file",
         .prepare = prepare_sizes,
         .run = [](Output&) -> long long { return tsl_write_maildir_cache_file(kCache, 1, 2); },
         .good = 1,
         .others = {{0}},
         .rule = file_begun(kCache),
         .traits = kWrites | kAcknowledges | kAllocatesNothing},
        {.names = "tsl_read_maildir_cache_file",
         .prepare = [] { write(kCache, "mtime=123,size=456"); },
         .run = [](Output& out) -> long long {
             long mtime = kUntouched;
             auto size = static_cast<unsigned long>(kUntouched);
             const int result = tsl_read_maildir_cache_file(kCache, &mtime, &size);
             out = numbers(mtime, static_cast<long long>(size));
             return result;
         },
         .good = 1,
         .others = {{0, numbers(kUntouched, kUntouched)}},
         .traits = kAllocatesNothing},
        {.names = "tsl_set_mail_unread_scandate",
         .prepare = [] { write(FAULT_INBOX "/.ts_unread_scan_date", "12\n"); },
         .run = [](Output&) -> long long { return tsl_set_mail_unread_scandate(FAULT_INBOX, 9); },
         .rule = file_begun(FAULT_INBOX "/.ts_unread_scan_date"),
         .traits = kWrites},
        {.names = "tsl_get_mail_unread_scandate",
         .prepare = [] { write(FAULT_INBOX "/.ts_unread_scan_date", "12\n13\n"); },
         .run = [](Output& out) -> long long {
             long date = kUntouched;
             const int result = tsl_get_mail_unread_scandate(FAULT_INBOX, &date);
             out = numbers(date, 0);
             return result;
         },
         .others = {{-1, numbers(kUntouched, 0)}}},
        {.names = "get_maildir_msg_len_from_name",
         .run = [](Output&) { return get_maildir_msg_len_from_name("1.h,#F#S#4711#E:2,S"); },
         .good = 4711,
         .traits = kNoCalls | kAllocatesNothing},
        folder_sum("", 0, {}, 0),
        folder_sum("by_stat", kStatFlag, {}, 0),
        folder_sum("tags", kTagFlag, messages_kept, kWrites),
        {.names = "tsl_get_mailbox_size",
         .prepare = prepare_messages_and_cache,
         .run = [](Output&) { return tsl_get_mailbox_size(FAULT_INBOX, nullptr); },
         .good = 4330,
         .others = {{0}},
         .traits = kAllocatesNothing},
        {.names = "tsl_get_mailbox_size_actual",
         .prepare = prepare_messages_and_cache,
         .run = [](Output&) { return tsl_get_mailbox_size_actual(FAULT_INBOX, nullptr, 0); },
         .good = 4330,
         .others = sums_of_some({10, 20, 300, 4000}),
         .rule = messages_kept,
         .traits = kWrites | kAllocatesNothing},
        {.names = "tsl_get_mailbox_size_actual",
         .variant = "scans_and_tags",
         .prepare = prepare_messages,
         .run = [](Output&) { return tsl_get_mailbox_size_actual(FAULT_INBOX, nullptr, kTagFlag); },
         .good = 4330,
         .others = sums_of_some({10, 20, 300, 4000}),
         .rule = messages_kept,
         .traits = kWrites},
        {.names = "Tessaly::TSMailUserId::getFolderSize",
         .prepare =
             [] {
                 prepare_messages();
                 write(kFolderSize, "2047 1\n");
             },
         .run = [](Output&) -> long long {
             return static_cast<long long>(TSMailUserId(kUser).getFolderSize("Inbox"));
         },
         .good = 2,
         .others = {{0}},
         .rule = with_marker(kDirty, in_steps),
         .traits = kThrows},
        {.names = "tsl_maildir_unlink_mail",
         .prepare = prepare_messages,
         .run = [](Output&) -> long long {
             return tsl_maildir_unlink_mail(FAULT_INBOX "/cur/3.1_1_1.h:2,S");
         },
         .others = {{-1}},
         .rule = sums_kept(kFolderSize),
         .traits = kWrites},
        {.names = "tsl_update_mail_folder_size",
         .prepare = empty_daemon_socket,
         .run = [](Output&) -> long long { return tsl_update_mail_folder_size(FAULT_INBOX, 7); },
         .good = static_cast<long long>(std::strlen("S7,F(" FAULT_INBOX ")")),
         .others = {{-1}},
         .traits = kAllocatesNothing},
    };
    rows.insert(rows.end(), others.begin(), others.end());
    return rows;
}

}  // namespace fault
