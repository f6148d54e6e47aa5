#include "tools/work/scan.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <climits>

#include "base/dir_reader.h"
#include "base/number.h"
#include "base/store_names.h"
#include "tools/cli/descriptors.h"
#include "tools/work/message_size.h"

namespace Tessaly::tool {

namespace {

// The size of a message, or -1 if the entry is not a message.
long long message_size(int dir, const dirent64& entry) {
    if (entry.d_name[0] == '.' || (entry.d_type != DT_REG && entry.d_type != DT_UNKNOWN)) return -1;
    const long long named = get_maildir_msg_len_from_name(entry.d_name);
    if (named >= 0 && entry.d_type == DT_REG) return named;
    struct stat st;
    if (::fstatat(dir, entry.d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode))
        return -1;
    return static_cast<long long>(counted_size(named, st));
}

// Calls visit(directory, name, size) for each message of cur or new; a missing directory counts as
// empty. Returns 0, or the errno if it could not be read to its end.
template <class Visit>
int each_message(int folder, const char* sub, const Visit& visit) {
    const Fd dir(::openat(folder, sub, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir) return errno == ENOENT ? 0 : errno;
    base::DirReader reader(dir.get());
    while (const dirent64* entry = reader.next()) {
        const long long size = message_size(dir.get(), *entry);
        if (size >= 0) visit(dir.get(), entry->d_name, static_cast<std::uint64_t>(size));
    }
    return reader.failed() ? errno : 0;
}

void count_directory(int folder, const char* name, FolderCount& count) {
    const int error = each_message(folder, name, [&](int, const char*, std::uint64_t size) {
        ++count.messages;
        base::add_up(count.bytes, size);
    });
    if (error != 0) count.error = error;
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
    count_directory(folder, names::kNew.data(), count);
    count.fresh = count.messages;
    count_directory(folder, names::kCur.data(), count);
    return count;
}

Totals total_of(const FolderCount& count) {
    const std::uint64_t most = LLONG_MAX;
    return {{static_cast<long long>(std::min(count.bytes, most)),
             static_cast<long long>(std::min(count.messages, most))}};
}

int visit_messages(const std::string& path, const MessageVisit& visit) {
    const Fd folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder) return errno;
    int error = 0;
    for (const bool is_new : {true, false}) {
        const int failed = each_message(
            folder.get(), (is_new ? names::kNew : names::kCur).data(),
            [&](int directory, const char* name, std::uint64_t size) {
                visit({directory, name, is_new, get_maildir_msg_len_from_name(name) >= 0, size});
            });
        if (failed != 0) error = failed;
    }
    return error;
}

std::vector<MessageRow> messages_of(const std::string& path, int& error) {
    std::vector<MessageRow> rows;
    const int failed = visit_messages(path, [&](const SeenMessage& message) {
        rows.push_back({message.name, message.is_new, message.has_size_field, message.bytes});
    });
    if (failed != 0) error = failed;
    return rows;
}

}  // namespace Tessaly::tool
