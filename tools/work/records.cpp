#include "tools/work/records.h"

#include <unistd.h>

#include <exception>

#include "tools/work/size_file.h"

namespace Tessaly::tool {

namespace {

using mailsize::SizeFile;

bool add_to(const std::string& path, SizeFile::Kind kind, const mailsize::Record& record) {
    SizeFile file(path.c_str(), kind);
    return file && file.append(record);
}

}  // namespace

bool add_to_folder_record(const std::string& folder, long long size, long long count) noexcept {
    try {
        return add_to(folder_size_file(folder), SizeFile::Kind::folder, {size, count});
    } catch (const std::exception&) {
        return false;
    }
}

bool add_to_mailbox_record(const TSMailUserId& id, long long size, long long count) noexcept {
    try {
        return add_to(mailbox_size_file(id), SizeFile::Kind::mailbox, {size, count});
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

bool is_marked(const TSMailUserId& id) { return ::access(dirty_marker(id).c_str(), F_OK) == 0; }

}  // namespace Tessaly::tool
