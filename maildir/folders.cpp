// The folder model: tables of names, tests on names and directories, making folders.
#include "maildir/folders.h"

#include <fcntl.h>
#include <strings.h>
#include <tessaly/MailUserId.h>
#include <tessaly/mailstore.h>
#include <tessaly/support.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <iterator>
#include <string>
#include <string_view>

#include "base/fd.h"
#include "base/guard.h"
#include "base/store_names.h"
#include "base/text.h"

constexpr const char* tsl_sys_folders[] = {"Inbox", "Drafts",     "Sent", "Bulk",
                                           "Trash", "SecureMail", nullptr};
constexpr int tsl_sys_folders_count = static_cast<int>(std::size(tsl_sys_folders)) - 1;
static_assert(tsl_sys_folders_count == 6, "the numbers of the system folders are interface");

namespace {
constexpr tsm_sys_folder reserved(std::string_view name) { return {name.data(), name.size()}; }
}  // namespace

constexpr tsm_sys_folder tsm_sys_folders[] = {
    reserved(Tessaly::names::kScanCache),
    reserved(".to.be.convert."),
    reserved(".uidlast"),
    reserved(".uidvalidity"),
    reserved(".reply"),
    reserved(".forward"),
    reserved(".signature"),
    reserved(".dovecot"),
    reserved(".subscriptions"),
    reserved(Tessaly::names::kFolderMarker),
    reserved(".wmfolder_pref"),
    reserved(Tessaly::names::kMaildirSize),
    {nullptr, 0},
};

namespace Tessaly::maildir {

namespace {

constexpr mode_t kMaildirMode = 0777;
constexpr mode_t kUserDirMode = 0700;

bool exists_at(int dirfd, const char* path) {
    return base::retry([=] { return ::faccessat(dirfd, path, F_OK, 0); }) == 0;
}
bool make_at(int dirfd, const char* path) {
    return base::retry([=] { return ::mkdirat(dirfd, path, kMaildirMode); }) == 0;
}

// The last component of a path, slashes at its end left out.
std::string_view last_component(std::string_view path) {
    path = path.substr(0, path.find_last_not_of('/') + 1);
    return path.substr(path.rfind('/') + 1);  // npos + 1 is the beginning
}

// Makes one sub-directory. Another process may make it at the same moment, which gives EEXIST. So
// does a dangling link, which is not a directory: the second test tells them apart.
bool make_sub_dir(int dir, const char* name) {
    if (exists_at(dir, name) || make_at(dir, name)) return true;
    return errno == EEXIST && exists_at(dir, name);
}

bool make_sub_dirs(const char* path) {
    const base::Fd dir(
        base::retry([path] { return ::open(path, O_PATH | O_DIRECTORY | O_CLOEXEC); }));
    return dir && std::all_of(std::begin(names::kSubDirs), std::end(names::kSubDirs),
                              [&dir](const char* name) { return make_sub_dir(dir.get(), name); });
}

int ensure_user_dir(const char* path, bool create) {
    if (exists_at(AT_FDCWD, path)) return 0;
    if (!create) return -1;
    return ::create_path(path, kUserDirMode) < 0 ? -2 : 0;
}

// ensure_user_dir for the directory that a member of the user's mailbox value names.
int ensure_dir_of(const char* address, int create, std::string (TSMailUserId::*path)() const) {
    if (address == nullptr) return -1;
    return base::no_throw(-1, [=] {
        const TSMailUserId user{std::string(address)};
        return ensure_user_dir((user.*path)().c_str(), static_cast<unsigned char>(create) != 0);
    });
}

}  // namespace

bool is_maildir_folder_at(int dirfd, const char* dir) {
    char path[PATH_MAX];
    base::BoundedText text(path, sizeof path);
    text << dir << '/';
    if (text.room() < names::kFolderMarker.size())
        return false;  // no entry of the folder can be reached
    char* name = path + text.view().size();
    const auto has = [=, &path](std::string_view entry) {
        *std::copy(entry.begin(), entry.end(), name) = '\0';
        return exists_at(dirfd, path);
    };
    return has(names::kFolderMarker) ||
           std::all_of(std::begin(names::kSubDirs), std::end(names::kSubDirs), has);
}

bool may_be_folder(const dirent64& entry) {
    if (entry.d_type != DT_DIR && entry.d_type != DT_LNK && entry.d_type != DT_UNKNOWN) {
        return false;
    }
    return std::none_of(std::begin(names::kSubDirs), std::end(names::kSubDirs),
                        [&](const char* sub) { return ::strcasecmp(entry.d_name, sub) == 0; });
}

}  // namespace Tessaly::maildir

namespace maildir = Tessaly::maildir;

int tsl_is_system_folder(const char* name) {
    if (name == nullptr) return 0;
    for (int i = 0; i < tsl_sys_folders_count; ++i) {
        if (std::strcmp(name, tsl_sys_folders[i]) == 0) return i + 1;
    }
    return 0;
}

int tsl_is_system_sub_folder(const char* name) {
    if (name == nullptr) return 0;
    for (int i = 0; i < tsl_sys_folders_count; ++i) {
        const size_t length = std::strlen(tsl_sys_folders[i]);
        if (::strncasecmp(name, tsl_sys_folders[i], length) == 0 && name[length] == '/') {
            return i + 1;
        }
    }
    return 0;
}

int tsl_is_reserved_folder(const char* path) {
    if (path == nullptr) return 0;
    const std::string_view name = maildir::last_component(path);
    return std::any_of(std::begin(tsm_sys_folders), std::end(tsm_sys_folders) - 1,
                       [name](const tsm_sys_folder& row) {
                           return name.starts_with({row.name, row.length});
                       });
}

int tsl_is_mbox_folder(const char* path) { return !tsl_is_reserved_folder(path); }

int tsl_is_maildir_folder(const char* dir) {
    return dir != nullptr && maildir::is_maildir_folder_at(AT_FDCWD, dir);
}

int tsl_is_mail_folder(const char* path, const struct stat* st) {
    struct stat own;
    if (st == nullptr) {
        const auto look = [&] { return ::stat(path, &own); };
        if (path == nullptr || Tessaly::base::retry(look) != 0) return 0;
        st = &own;
    }
    return S_ISDIR(st->st_mode) && tsl_is_maildir_folder(path);
}

int tsl_mkdir_maildir(const char* dir) {
    if (dir == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (std::strlen(dir) + 1 + std::strlen(Tessaly::names::kSubDirs[0]) >= PATH_MAX) {
        errno = ENAMETOOLONG;
        return -1;
    }
    if (::create_path(dir, maildir::kMaildirMode) < 0) return -1;
    return maildir::make_sub_dirs(dir) ? 0 : -1;
}

int create_mail_dir(const char* address, int create) {
    return maildir::ensure_dir_of(address, create, &Tessaly::TSMailUserId::mailpath);
}

int create_pref_dir(const char* address, int create) {
    return maildir::ensure_dir_of(address, create, &Tessaly::TSMailUserId::prefpath);
}
