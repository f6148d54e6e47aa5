#include "tools/work/size_report.h"

#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <vector>

#include "tools/cli/text.h"
#include "tools/work/folder.h"
#include "tools/work/folder_list.h"
#include "tools/work/records.h"
#include "tools/work/scan.h"
#include "tools/work/size_file.h"

namespace Tessaly::tool {

namespace {

using std::string;

// The stored and the actual size of a folder or a mailbox.
struct SizeRow {
    string path;
    std::optional<Totals> kept;
    FolderCount actual;

    // A missing record is right for an empty folder.
    bool agrees() const {
        const Totals total = kept.value_or(Totals());
        return !total.damaged && static_cast<std::uint64_t>(total.size) == actual.bytes &&
               static_cast<std::uint64_t>(total.count) == actual.messages;
    }
};

Json cached_size(const string& folder) {
    char file[PATH_MAX];
    if (folder.size() + NAME_MAX >= sizeof file) return nullptr;
    tsl_get_maildir_cache_file(folder.c_str(), file, sizeof file);
    if (::access(file, F_OK) != 0) return nullptr;
    return tsl_get_mailbox_size(folder.c_str(), nullptr);
}

void put_kept(const std::optional<Totals>& kept, Json& object) {
    const bool known = kept && !kept->damaged;
    object["kept_bytes"] = known ? Json(kept->size) : Json(nullptr);
    object["kept_messages"] = known ? Json(kept->count) : Json(nullptr);
    object["kept_damaged"] = kept && kept->damaged;
}

void put_actual(const SizeRow& row, Json& object) {
    object["actual_bytes"] = row.actual.bytes;
    object["actual_messages"] = row.actual.messages;
    object["agrees"] = row.agrees();
}

SizeRow report_folder(const TSMailUserId& id, const string& name, Report& report) {
    const string path = id.mailfolder(name);
    SizeRow row = {path, stored_totals(folder_size_file(path)),
                   count_folder(AT_FDCWD, path.c_str())};
    Json object = {{"folder", name}, {"path", path}};
    put_kept(row.kept, object);
    object["cached_bytes"] = cached_size(path);
    put_actual(row, object);
    report.object(object);
    if (row.actual.error != 0) report.error(system_failure(printable(path), row.actual.error));
    return row;
}

void report_mailbox(const TSMailUserId& id, Report& report) {
    const FolderList folders = list_folders(id);
    SizeRow total = {id.mailpath(), stored_totals(mailbox_size_file(id)), {}};
    for (const string& name : folders.names) {
        const SizeRow row = report_folder(id, name, report);
        total.actual.messages += row.actual.messages;
        total.actual.bytes += row.actual.bytes;
    }
    Json object = {{"address", id.address(true)}, {"path", total.path}};
    put_kept(total.kept, object);
    put_actual(total, object);
    object["dirty"] = is_marked(id);
    report.object(object);
    for (const auto& [path, error] : folders.unread) {
        report.error(system_failure(printable(path), error));
    }
}

}  // namespace

void report_sizes(const TSMailUserId& id, const std::optional<string>& folder, Report& report) {
    if (!folder) return report_mailbox(id, report);
    existing_folder(id, *folder);
    report_folder(id, *folder, report);
}

}  // namespace Tessaly::tool
