#include "tools/work/usage.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/work/folder_list.h"
#include "tools/work/scan.h"

namespace Tessaly::tool {

namespace {

bool exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

}  // namespace

MailboxUsage usage_of(const TSMailUserId& id) {
    const std::string file = mailbox_size_file(id);
    struct stat st = {};
    if (::stat(file.c_str(), &st) != 0 && errno != ENOENT) throw system_failure(printable(file));
    return {stored_totals(file).value_or(Totals()), st.st_mtim.tv_sec, exists(dirty_marker(id)),
            exists(id.fname(MUF_QUOTA_WARNING_FLAG)), exists(id.fname(MUF_QUOTA_EXCEEDED_FLAG))};
}

Verified verify(const TSMailUserId& id) {
    const FolderList folders = list_folders(id);
    if (!folders.unread.empty()) {
        const auto& [path, error] = folders.unread.front();
        throw system_failure(printable(path), error);
    }
    Verified verified;
    for (const std::string& name : folders.names) {
        int error = 0;
        for (const MessageRow& row : messages_of(id.mailfolder(name), error)) {
            add(verified.actual, {{static_cast<long long>(row.bytes), 1}});
            verified.newest =
                std::max(verified.newest, tsl_get_mail_creation_date(row.name.c_str()));
        }
        if (error != 0) throw system_failure(printable(id.mailfolder(name)), error);
    }
    return verified;
}

}  // namespace Tessaly::tool
