// Checks of size files, of the mark and of caches.
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>

#include "base/store_names.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/doctor/checks.h"
#include "tools/doctor/folders.h"
#include "tools/work/folder_list.h"
#include "tools/work/mailbox_lock.h"
#include "tools/work/paths.h"
#include "tools/work/recount.h"
#include "tools/work/scan.h"

namespace Tessaly::tool {

namespace {

using std::string;

void check_total(const TSMailUserId& id, const string& file, const Totals& actual,
                 std::vector<Finding>& findings) {
    const Totals kept = stored_totals(file).value_or(Totals());
    if (kept == actual) return;
    const string says =
        kept.damaged
            ? "is damaged"
            : fmt::format("says {} in {}", counted(static_cast<std::uint64_t>(kept.size), "byte"),
                          counted(static_cast<std::uint64_t>(kept.count), "message"));
    findings.push_back({file,
                        fmt::format("{}; there are {} in {}", says,
                                    counted(static_cast<std::uint64_t>(actual.size), "byte"),
                                    counted(static_cast<std::uint64_t>(actual.count), "message")),
                        "recounts the mailbox", [id] { recount(id); }});
}

std::vector<Finding> look_at_totals_once(const Patient& patient) {
    std::vector<Finding> findings;
    Totals sum;
    std::size_t failed = list_folders(patient.id).unread.size();
    failed += look_at_each_folder(patient, [&](const string&, const string& path) {
        const FolderCount count = count_folder(AT_FDCWD, path.c_str());
        if (count.error != 0) throw system_failure(printable(path), count.error);
        const Totals actual = total_of(count);
        check_total(patient.id, folder_size_file(path), actual, findings);
        add(sum, actual);
    });
    // The sum is only known if all folders were counted.
    if (failed == 0) check_total(patient.id, mailbox_size_file(patient.id), sum, findings);
    return findings;
}

// In a mailbox in use a message may arrive between a count and the reading of a size file. So if
// there are findings, the check is repeated with all folders locked.
std::vector<Finding> look_at_totals(const Patient& patient) {
    std::vector<Finding> findings = look_at_totals_once(patient);
    if (findings.empty()) return findings;
    const LockedFolders locked = lock_folders(patient.id);
    return look_at_totals_once(patient);
}

std::vector<Finding> look_at_mark(const Patient& patient) {
    const string path = dirty_marker(patient.id);
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) return {};
    const auto minutes = std::max<std::time_t>(0, std::time(nullptr) - st.st_mtime) / 60;
    return {{path,
             fmt::format("the mailbox has been waiting for a recount for {}",
                         counted(static_cast<std::uint64_t>(minutes), "minute")),
             "recounts the mailbox and removes the mark", [id = patient.id] { recount(id); }}};
}

long long scanned_size(const string& folder) {
    long long size = 0;
    for (const char* sub : names::kSubDirs) size += tsl_get_dir_size(folder.c_str(), sub, 0);
    return size;
}

std::vector<Finding> look_at_caches(const Patient& patient) {
    std::vector<Finding> findings;
    look_at_each_folder(patient, [&](const string&, const string& path) {
        const string cache = in(path, names::kScanCache);
        if (::access(cache.c_str(), F_OK) != 0) return;
        const long long cached = tsl_get_mailbox_size(path.c_str(), nullptr);
        const long long actual = scanned_size(path);
        if (cached == actual) return;
        findings.push_back({cache, fmt::format("says {} bytes; there are {}", cached, actual),
                            "removes the cache; the next scan makes it anew", [cache] {
                                if (::unlink(cache.c_str()) == 0 || errno == ENOENT) return;
                                throw system_failure(printable(cache));
                            }});
    });
    return findings;
}

constexpr Check kSizeChecks[] = {
    {"cache", "programs that show the cached size show a wrong one", look_at_caches},
    {"sizes", "quotas are judged by a size that is wrong", look_at_totals},
    {"mark", "until the recount the mailbox's size counts as unknown", look_at_mark},
};

}  // namespace

std::span<const Check> size_checks() { return kSizeChecks; }

}  // namespace Tessaly::tool
