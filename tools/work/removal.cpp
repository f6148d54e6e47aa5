#include "tools/work/removal.h"

#include <sys/stat.h>
#include <tessaly/support.h>

#include <ctime>

#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/work/folder_lock.h"
#include "tools/work/paths.h"
#include "tools/work/records.h"

namespace Tessaly::tool {

namespace {

using std::string;

Failure missing(const string& what) { return {kExitNoInput, "there is no " + what}; }

// Subtracts what was removed from the mailbox's record.
bool settle(const TSMailUserId& id, const Amount& gone) {
    const auto bytes = static_cast<long long>(gone.bytes);
    const auto messages = static_cast<long long>(gone.messages);
    const bool known = gone.error == 0 && add_to_mailbox_record(id, -bytes, -messages);
    if (!known) mark_for_recount(id);
    return known;
}

bool settle_if_any(const TSMailUserId& id, const Amount& gone) {
    return (gone.messages == 0 && gone.error == 0) || settle(id, gone);
}

// The date as 20240229, which tells people how long a scheduled folder has been waiting.
string today() {
    const std::time_t now = std::time(nullptr);
    struct tm parts;
    char text[16];
    if (::gmtime_r(&now, &parts) == nullptr) return "";
    return {text, std::strftime(text, sizeof text, "%Y%m%d", &parts)};
}

Failure deletion_failure(const string& path, int error) {
    if (error != ENOTEMPTY) return system_failure(printable(path), error);
    return {kExitCannotCreate, printable(path) + ": something in it could not be removed"};
}

bool is_regular(const string& path) {
    struct stat st;
    if (::lstat(path.c_str(), &st) == 0) return S_ISREG(st.st_mode);
    if (errno == ENOENT) return false;
    throw system_failure(printable(path));
}

// The move to the hidden name sets the time of change.
bool is_older(const string& path, std::chrono::seconds age) {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) return false;
    struct timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now);
    return std::chrono::seconds(now.tv_sec - st.st_ctim.tv_sec) > age;
}

}  // namespace

string present_folder(const TSMailUserId& id, const string& name) {
    string path = id.mailfolder(name);
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) {
        if (errno == ENOENT || errno == ENOTDIR) throw missing("folder \"" + printable(name) + '"');
        throw system_failure(printable(path));
    }
    if (S_ISLNK(st.st_mode)) {
        throw Failure(kExitData, printable(path) + " is a symbolic link, which is left alone");
    }
    if (tsl_is_mail_folder(path.c_str(), &st) == 0) {
        throw missing("folder \"" + printable(name) + '"');
    }
    return path;
}

Removal schedule_folder(const TSMailUserId& id, const string& name) {
    const FolderLock lock = locked_folder(id, name, LockKind::exclusive);
    const string path = present_folder(id, name);  // the locked folder may have been a link
    const Amount amount = amount_below(path);
    if (tsm_schedule_for_deletion(path.c_str(), id.homepath().c_str(), today().c_str()) != 0) {
        throw system_failure("moving " + printable(path) + " to " + printable(id.homepath()));
    }
    return {amount, settle_if_any(id, amount)};
}

Removal delete_folder(const TSMailUserId& id, const string& name) {
    const FolderLock lock = locked_folder(id, name, LockKind::exclusive);
    const string path = present_folder(id, name);
    const Amount amount = amount_below(path);
    try {
        delete_tree(path);
    } catch (const Failure&) {
        mark_for_recount(id);
        throw;
    }
    return {amount, settle_if_any(id, amount)};
}

std::vector<string> scheduled_in(const TSMailUserId& id,
                                 std::optional<std::chrono::seconds> older) {
    std::vector<string> paths;
    for (const string& directory : {id.homepath(), id.mailpath()}) {
        for (const string& name : names_in(directory)) {
            if (tsm_is_deleted_user_path(name.c_str()) == 0) continue;
            string path = in(directory, name);
            if (!older || is_older(path, *older)) paths.push_back(std::move(path));
        }
    }
    return paths;
}

void delete_tree(const string& path) {
    const int error = tsm_delete_path(path.c_str());
    if (error != 0) throw deletion_failure(path, error);
}

void clean_directory(const string& path) {
    if (tsm_clean_dir(path.c_str(), 0) != 0) throw deletion_failure(path, errno);
}

void check_message_name(std::string_view name) {
    const char* reason = nullptr;
    if (name.empty())
        reason = "it is empty";
    else if (name.find('/') != std::string_view::npos)
        reason = "it holds a '/'";
    else if (name.front() == '.')
        reason = "names that begin with '.' are not messages";
    if (reason == nullptr) return;
    throw Failure(kExitData, "message name \"" + printable(name) + "\" is refused: " + reason);
}

string present_message(const TSMailUserId& id, const string& folder, const string& name) {
    const string directory = present_folder(id, folder);
    for (const char* place : {"/new", "/cur"}) {
        string path = in(directory + place, name);
        if (is_regular(path)) return path;
    }
    throw missing("message \"" + printable(name) + "\" in " + printable(directory));
}

// The size that the library subtracts for a message: that in its name, else that of its file.
Amount amount_of_message(const string& path) {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) throw system_failure(printable(path));
    const long long named = get_maildir_msg_len_from_name(path.c_str() + path.rfind('/') + 1);
    Amount amount;
    amount.messages = 1;
    amount.bytes = static_cast<std::uint64_t>(named >= 1 ? named : st.st_size);
    return amount;
}

MessageRemoval delete_message(const TSMailUserId& id, const string& folder, const string& name) {
    const FolderLock lock = locked_folder(id, folder, LockKind::shared);
    const string path = present_message(id, folder, name);
    const Amount amount = amount_of_message(path);
    if (tsl_maildir_unlink_mail(path.c_str()) != 0) {
        const int error = errno;
        // The folder's record has been corrected already.
        mark_for_recount(id);
        throw system_failure(printable(path), error);
    }
    // The library adds an empty message to the record, but does not subtract it.
    const bool counted = amount.bytes > 0 || add_to_folder_record(id.mailfolder(folder), 0, -1);
    if (!counted) mark_for_recount(id);
    return {{amount, settle(id, amount) && counted}, path};
}

}  // namespace Tessaly::tool
