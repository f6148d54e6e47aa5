#include "tools/tag.h"

#include <algorithm>

#include "tools/exit.h"
#include "tools/folder.h"
#include "tools/folder_lock.h"
#include "tools/scan.h"
#include "tools/text.h"

namespace Tessaly::tool {

namespace {

constexpr int kTagFirst = 4;  // a flag of the library's scan

std::uint64_t untagged(const std::string& folder) {
    int error = 0;
    const std::vector<MessageRow> rows = messages_of(folder, error);
    if (error != 0) throw system_failure(printable(folder), error);
    return static_cast<std::uint64_t>(std::count_if(
        rows.begin(), rows.end(), [](const MessageRow& row) { return !row.has_size_field; }));
}

}  // namespace

Tagged tag_folder(const TSMailUserId& id, const std::string& folder) {
    const std::string path = existing_folder(id, folder);
    const FolderLock lock = locked_folder(id, folder, LockKind::exclusive);
    const std::uint64_t before = untagged(path);
    if (before == 0) return {};
    for (const char* sub : {"cur", "new"}) tsl_get_dir_size(path.c_str(), sub, kTagFirst);
    const std::uint64_t left = untagged(path);
    // A message that somebody else brought meanwhile is none that was tagged.
    return {before - std::min(before, left), left};
}

}  // namespace Tessaly::tool
