#include "tools/work/removal.h"

#include <sys/stat.h>
#include <tessaly/support.h>

#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/work/folder_lock.h"
#include "tools/work/hidden_name.h"
#include "tools/work/paths.h"
#include "tools/work/records.h"
#include "tools/work/scheduled.h"
#include "tools/work/uncounted.h"

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

// A removal of what may hold messages. Until it is counted, the mailbox is marked for a recount.
class Change {
  public:
    Change(const TSMailUserId& id, const Amount& gone) : id_(id), gone_(gone) {
        if (gone.messages != 0 || gone.error != 0) uncounted_.emplace(id);
    }
    bool settle() {
        if (!uncounted_) return true;
        const bool known = tool::settle(id_, gone_);
        if (known) uncounted_->counted();
        return known;
    }
    // Nothing was removed.
    void take_back() {
        if (uncounted_) uncounted_->counted();
    }

  private:
    const TSMailUserId& id_;
    const Amount& gone_;
    std::optional<Uncounted> uncounted_;
};

[[noreturn]] void fail_to_move(const string& path, const TSMailUserId& id, int error) {
    throw system_failure("moving " + printable(path) + " to " + printable(id.homepath()), error);
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
    record_place(lock.fd(), name);
    Change change(id, amount);
    if (tsm_schedule_for_deletion(path.c_str(), id.homepath().c_str(), today().c_str()) != 0) {
        const int error = errno;
        remove_record(lock.fd());
        change.take_back();
        fail_to_move(path, id, error);
    }
    return {amount, change.settle()};
}

Removal delete_folder(const TSMailUserId& id, const string& name) {
    const FolderLock lock = locked_folder(id, name, LockKind::exclusive);
    const string path = present_folder(id, name);
    const Amount amount = amount_below(path);
    Change change(id, amount);
    try {
        delete_tree(path);
    } catch (const Failure&) {
        mark_for_recount(id);
        throw;
    }
    return {amount, change.settle()};
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
    Uncounted uncounted(id);
    // After a failure the mark stays: the folder's record has been corrected already.
    if (tsl_maildir_unlink_mail(path.c_str()) != 0) throw system_failure(printable(path));
    // The library adds an empty message to the record, but does not subtract it.
    const bool in_folder = amount.bytes > 0 || add_to_folder_record(id.mailfolder(folder), 0, -1);
    const bool in_mailbox = settle(id, amount);
    if (in_folder && in_mailbox) uncounted.counted();
    return {{amount, in_folder && in_mailbox}, path};
}

}  // namespace Tessaly::tool
