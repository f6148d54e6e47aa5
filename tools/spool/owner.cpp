#include "tools/spool/owner.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "base/dir_reader.h"
#include "base/store_names.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"

namespace Tessaly::tool {

namespace {

using std::string;

constexpr gid_t kNoGroup = 65534;

gid_t group_for(uid_t user, gid_t group_of_directory) {
    if (const struct passwd* entry = ::getpwuid(user)) return entry->pw_gid;
    return group_of_directory != 0 ? group_of_directory : kNoGroup;
}

[[noreturn]] void refuse(const string& path, const char* reason) {
    throw Failure(kExitCannotCreate,
                  path + ": root does not work here (" + reason +
                      "); give the mailbox to a user, or take the others' rights away");
}

// Whether the directory holds messages: the search skips its entries.
bool holds_messages(const char* name) {
    for (const char* part : names::kSubDirs) {
        if (std::strcmp(name, part) == 0) return true;
    }
    return false;
}

// Searches root's mailbox, one directory at a time. Only root can change a directory that passed,
// so the result stays true.
class RootsOwn {
  public:
    explicit RootsOwn(const Place& home) : home_(home) {}

    void look_through() {
        for (below_.emplace_back("."); !below_.empty();) {
            const string directory = std::move(below_.back());
            below_.pop_back();
            look_into(directory);
        }
    }

  private:
    void look_into(const string& directory) {
        const Fd fd(retry([&] {
            return ::openat(home_.fd.get(), directory.c_str(),
                            O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        }));
        if (!fd && errno == ENOENT) return;  // only root can have removed it meanwhile
        if (!fd) throw system_failure(shown(directory));
        base::DirReader reader(fd.get());
        while (const dirent64* entry = reader.next_real()) look_at(fd.get(), directory, *entry);
        if (reader.failed() && errno != ENOENT) throw system_failure(shown(directory));
    }

    void look_at(int fd, const string& directory, const dirent64& entry) {
        const auto type = entry.d_type;
        if (type != DT_DIR && type != DT_LNK && type != DT_UNKNOWN) return;
        const string path = directory + '/' + entry.d_name;
        struct stat st;
        if (::fstatat(fd, entry.d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == ENOENT) return;
            throw system_failure(shown(path));
        }
        if (S_ISLNK(st.st_mode) && st.st_uid != 0) {
            refuse(shown(path), "this symbolic link is another user's");
        }
        if (!S_ISDIR(st.st_mode)) return;
        if (!only_root_writes(st)) {
            refuse(shown(path), "another user can write to this directory");
        }
        if (!holds_messages(entry.d_name)) below_.push_back(path);
    }

    string shown(const string& path) const {
        return printable(path == "." ? home_.path : home_.path + path.substr(1));
    }

    const Place& home_;
    std::vector<string> below_;  // relative to the home, as "./mail/Inbox"
};

}  // namespace

Owner owner_of(const Place& directory) {
    if (::geteuid() != 0) return {};
    if (directory.owner != 0) {
        return {true, directory.owner, group_for(directory.owner, directory.group)};
    }
    if (!directory.only_root_writes) {
        refuse(printable(directory.path), "another user can write to it or above it");
    }
    return {};
}

Owner owner_of_mailbox(const Place& home) {
    const Owner owner = owner_of(home);
    if (::geteuid() == 0 && !owner.change) RootsOwn(home).look_through();
    return owner;
}

// Sets the user last: without root's rights it could no longer set the groups.
void become(const Owner& owner) {
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) throw system_failure("no_new_privs");
    if (!owner.change) return;
    if (::setgroups(0, nullptr) != 0 || ::setresgid(owner.group, owner.group, owner.group) != 0 ||
        ::setresuid(owner.user, owner.user, owner.user) != 0) {
        throw Failure(kExitCannotCreate, "user " + std::to_string(owner.user) +
                                             ": cannot become this user (" + error_text(errno) +
                                             ')');
    }
}

}  // namespace Tessaly::tool
