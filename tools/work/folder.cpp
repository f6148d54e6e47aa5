#include "tools/work/folder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <tessaly/support.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "tools/cli/descriptors.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"

namespace Tessaly::tool {

namespace {

using std::string;

class Umask {
  public:
    explicit Umask(mode_t mask) : before_(::umask(mask)) {}
    Umask(const Umask&) = delete;
    Umask& operator=(const Umask&) = delete;
    ~Umask() { ::umask(before_); }

  private:
    mode_t before_;
};

bool exists(const string& path) { return ::access(path.c_str(), F_OK) == 0; }

bool is_complete(const string& folder) {
    return exists(folder + "/cur") && exists(folder + "/new") && exists(folder + "/tmp");
}

// Flushes a directory's entries to the disk. Skips a directory that this process may not open.
void sync_directory(const string& path) {
    const Fd fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd && ::fsync(fd.get()) != 0 && errno != EINVAL) throw system_failure(printable(path));
}

string parent_of(const string& path) { return path.substr(0, path.rfind('/')); }

// Makes one folder, and its parent if that is missing.
void make_level(const string& folder) {
    if (tsl_mkdir_maildir(folder.c_str()) == 0) return;
    throw system_failure("making the folder " + printable(folder));
}

}  // namespace

bool mailbox_exists(const TSMailUserId& id) {
    const string path = id.mailpath();
    struct stat st;
    if (::stat(path.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
    if (errno == ENOENT || errno == ENOTDIR) return false;
    throw system_failure(printable(path));
}

void demand_mailbox(const TSMailUserId& id) {
    if (mailbox_exists(id)) return;
    throw Failure(kExitNoUser, "there is no mailbox " + printable(id.address(true)));
}

string existing_folder(const TSMailUserId& id, const string& name) {
    string path = id.mailfolder(name);
    if (tsl_is_mail_folder(path.c_str(), nullptr) != 0) return path;
    throw Failure(kExitNoInput, "there is no folder \"" + printable(name) + '"');
}

bool FolderBatch::make_roots(const TSMailUserId& id) {
    const Umask mask(umask_);
    const string address = id.address();
    bool missing = false;
    for (const auto& [path, make] :
         {std::pair{id.mailpath(), &create_mail_dir}, std::pair{id.prefpath(), &create_pref_dir}}) {
        if (exists(path)) continue;
        missing = true;
        if (make(address.c_str(), 1) != 0) throw system_failure("making " + printable(path));
        is_new(path);
    }
    return missing;
}

bool FolderBatch::make_folder(const TSMailUserId& id, const string& name) {
    const Umask mask(umask_);
    bool missing = false;
    for (std::size_t end = 0; end != string::npos;) {
        end = name.find('/', end + 1);
        const string path = id.mailfolder(name.substr(0, end));
        if (is_complete(path)) continue;
        missing = true;
        make_level(path);
        is_new(path);
    }
    return missing;
}

// The directories above it, up to the spool, may be new as well.
void FolderBatch::is_new(string path) {
    constexpr std::string_view kSpool = "/var/spool";
    for (; path.size() >= kSpool.size(); path = parent_of(path)) unflushed_.insert(path);
}

void FolderBatch::flush() {
    std::for_each(unflushed_.rbegin(), unflushed_.rend(), sync_directory);
    unflushed_.clear();
}

bool FolderMaker::make_folder(const TSMailUserId& id, const string& name) const {
    FolderBatch batch(umask_);
    const bool missing = batch.make_folder(id, name);
    batch.flush();
    return missing;
}

void FolderMaker::make_mailbox(const TSMailUserId& id) const {
    FolderBatch batch(umask_);
    batch.make_roots(id);
    for (const string& name : system_folders()) batch.make_folder(id, name);
    batch.flush();
}

std::vector<string> system_folders() {
    return {tsl_sys_folders, tsl_sys_folders + tsl_sys_folders_count};
}

}  // namespace Tessaly::tool
