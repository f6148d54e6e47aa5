#include "tools/work/records.h"

#include <unistd.h>

#include <exception>

#include "tools/work/size_file.h"

namespace Tessaly::tool {

namespace {

// Whether an append changed the file.
template <class Append>
bool changes(const std::string& path, Append append) {
    const FileStamp before = stamp_of(path);
    append(path.c_str());
    return !(stamp_of(path) == before);
}

}  // namespace

bool add_to_folder_record(const std::string& folder, long long size, long long count) noexcept {
    try {
        return changes(folder_size_file(folder),
                       [&](const char* path) { tsl_append_mail_folder_size(path, size, count); });
    } catch (const std::exception&) {
        return false;
    }
}

bool add_to_mailbox_record(const TSMailUserId& id, long long size, long long count) noexcept {
    try {
        return changes(mailbox_size_file(id),
                       [&](const char* path) { tsl_append_maildirsize(path, size, count); });
    } catch (const std::exception&) {
        return false;
    }
}

void mark_for_recount(const TSMailUserId& id) noexcept {
    try {
        tsl_reset_quota_flag_by_path(id.mailpath().c_str());
    } catch (const std::exception&) {
        return;
    }
}

bool is_marked(const TSMailUserId& id) {
    return ::access((mailbox_size_file(id) + ".dirty").c_str(), F_OK) == 0;
}

}  // namespace Tessaly::tool
