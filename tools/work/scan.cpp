#include "tools/work/scan.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "tools/cli/descriptors.h"

namespace Tessaly::tool {

namespace {

// Adds without passing the largest number: sizes in names are whatever somebody wrote.
void add(std::uint64_t& sum, std::uint64_t more) {
    if (__builtin_add_overflow(sum, more, &sum)) sum = UINT64_MAX;
}

// The size of a message, or -1 if the entry is none.
long long message_size(int dir, const dirent64& entry) {
    if (entry.d_name[0] == '.' || (entry.d_type != DT_REG && entry.d_type != DT_UNKNOWN)) return -1;
    const long long named = get_maildir_msg_len_from_name(entry.d_name);
    if (named >= 0 && entry.d_type == DT_REG) return named;
    struct stat st;
    if (::fstatat(dir, entry.d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode))
        return -1;
    return named >= 0 ? named : st.st_size;
}

// Calls visit(name, size) for each message of cur or new; a missing one is empty. Returns 0, or why
// it could not be read to its end.
template <class Visit>
int each_message(int folder, const char* sub, const Visit& visit) {
    const Fd dir(::openat(folder, sub, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir) return errno == ENOENT ? 0 : errno;
    alignas(dirent64) char piece[32768];
    for (;;) {
        const ssize_t n = retry([&] { return ::getdents64(dir.get(), piece, sizeof piece); });
        if (n <= 0) return n < 0 ? errno : 0;
        for (const char *at = piece, *end = piece + n; at < end;) {
            const auto& entry = *reinterpret_cast<const dirent64*>(at);
            at += entry.d_reclen;
            const long long size = message_size(dir.get(), entry);
            if (size >= 0) visit(entry.d_name, static_cast<std::uint64_t>(size));
        }
    }
}

void count_directory(int folder, const char* name, FolderCount& count) {
    const int error = each_message(folder, name, [&](const char*, std::uint64_t size) {
        ++count.messages;
        add(count.bytes, size);
    });
    if (error != 0) count.error = error;
}

int visit(const char* name, const struct stat* /*st*/, void* arg) {
    const char* slash = std::strrchr(name, '/');
    const char* here = slash == nullptr ? name : slash + 1;
    static_cast<std::vector<FolderRow>*>(arg)->push_back({name, count_folder(AT_FDCWD, here)});
    return 0;
}

}  // namespace

FolderCount count_folder(int at, const char* name) {
    FolderCount count;
    const Fd folder(::openat(at, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder) {
        count.error = errno;
        return count;
    }
    return count_folder(folder.get());
}

FolderCount count_folder(int folder) {
    FolderCount count;
    count_directory(folder, "new", count);
    count.fresh = count.messages;
    count_directory(folder, "cur", count);
    return count;
}

Totals total_of(const FolderCount& count) {
    const std::uint64_t most = LLONG_MAX;
    return {{static_cast<long long>(std::min(count.bytes, most)),
             static_cast<long long>(std::min(count.messages, most))}};
}

std::vector<FolderRow> folders_of(const TSMailUserId& id) {
    std::vector<FolderRow> rows;
    tsl_visit_folders(id.mailpath().c_str(), 1, visit, &rows);
    return rows;
}

std::vector<MessageRow> messages_of(const std::string& path, int& error) {
    std::vector<MessageRow> rows;
    const Fd folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder) error = errno;
    if (!folder) return rows;
    for (const bool is_new : {true, false}) {
        const int failed = each_message(
            folder.get(), is_new ? "new" : "cur", [&](const char* name, std::uint64_t size) {
                rows.push_back({name, is_new, get_maildir_msg_len_from_name(name) >= 0, size});
            });
        if (failed != 0) error = failed;
    }
    return rows;
}

}  // namespace Tessaly::tool
