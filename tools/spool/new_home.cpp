#include "tools/spool/new_home.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <tessaly/support.h>
#include <unistd.h>

#include <functional>
#include <utility>

#include "base/number.h"
#include "base/rename.h"
#include "tools/cli/text.h"
#include "tools/spool/directory_job.h"
#include "tools/spool/job.h"
#include "tools/spool/mailbox_job.h"

// The installed support library may lack this function.
#pragma weak cfg_get_mail_user

namespace Tessaly::tool {

namespace {

using std::string;

constexpr mode_t kHomeMode = 0700;
// A directory that holds other users' homes must let these users pass.
constexpr mode_t kSharedMode = 0777, kPassable = 0711;

template <class Id>
std::optional<Id> number_in(const string& text) {
    const auto id = base::whole_number<Id>(text);
    return id == static_cast<Id>(-1) ? std::nullopt : id;
}

Failure unknown(const char* what, const string& name) {
    return {kExitUsage, string("--owner: unknown ") + what + " \"" + printable(name) + '"'};
}

gid_t group_named(const string& name) {
    if (const struct group* entry = ::getgrnam(name.c_str())) return entry->gr_gid;
    if (const auto number = number_in<gid_t>(name)) return *number;
    throw unknown("group", name);
}

const struct passwd* user_named(const string& name) {
    if (const struct passwd* entry = ::getpwnam(name.c_str())) return entry;
    const auto number = number_in<uid_t>(name);
    return number ? ::getpwuid(*number) : nullptr;
}

// ---- in a worker

// Makes a directory in `parent` unless it exists. The umask sets the mode, because a chmod would
// clear a set-group-id bit that the directory has inherited.
void make_directory(int parent, const string& name, const string& path, mode_t mode) {
    const mode_t mask = ::umask(0);
    const bool made = ::mkdirat(parent, name.c_str(), mode) == 0;
    const int error = errno;
    ::umask(mask);
    if (!made && error != EEXIST) throw system_failure(printable(path), error);
}

// Renames the directory to its final name. A home that another process made meanwhile is as good.
void put_in_place(int directory, const string& hidden, const string& name, const string& path) {
    bool moved = base::rename_new(directory, hidden.c_str(), directory, name.c_str());
    if (!moved && (errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP)) {
        moved = ::renameat(directory, hidden.c_str(), directory, name.c_str()) == 0;
    }
    if (!moved && (errno == EEXIST || errno == ENOTEMPTY)) {
        moved = ::unlinkat(directory, hidden.c_str(), AT_REMOVEDIR) == 0;
    }
    if (!moved) throw system_failure(printable(path));
}

// ---- in the parent

// Makes the home step by step. Each step runs as the owner of the directory that it changes.
class HomeMaker {
  public:
    HomeMaker(Session& session, const TSMailUserId& id, const std::optional<Owner>& wanted)
        : session_(session), id_(id), wanted_(wanted) {}

    void make() {
        const Place domain = this->domain();
        const Owner maker = owner_of(domain);
        const Owner owner = owner_for(domain);
        if (maker == owner) {
            make_in(domain, id_.tilde_name(), kHomeMode);
        } else {
            make_and_give(domain, maker, owner);
        }
    }

    Place domain() { return shared_directory(id_.fname(MUF_HOME_PARENT)); }

  private:
    Owner owner_for(const Place& domain) const {
        if (wanted_) return *wanted_;
        if (domain.owner != 0 || ::geteuid() != 0) return owner_of(domain);
        const char* name = cfg_get_mail_user == nullptr ? nullptr : cfg_get_mail_user();
        return name == nullptr ? Owner{} : owner_named(name);
    }

    // The directory at a path below the spool. Makes it and the directories above it where missing.
    Place shared_directory(const string& path) {
        try {
            return place_at(path);
        } catch (const Failure& failure) {
            if (failure.error() == ENOTDIR) throw system_failure(printable(path), ENOTDIR);
            if (failure.error() != ENOENT) throw;
        }
        const std::size_t slash = path.rfind('/');
        const Place above = shared_directory(path.substr(0, slash));
        const mode_t mode = (kSharedMode & ~session_.callers_umask) | kPassable;
        make_in(above, path.substr(slash + 1), mode);
        return place_at(path);
    }

    void make_in(const Place& directory, const string& name, mode_t mode) {
        const string path = directory.path + '/' + name;
        run_in(session_, directory, [=](int parent, Report&) {
            make_directory(parent, name, path, mode);
            flush_directory(parent, path);
        });
    }

    // Uses a hidden name until the directory belongs to its owner, so that a home never has a wrong
    // owner.
    void make_and_give(const Place& domain, const Owner& maker, const Owner& owner) {
        const string hidden = '.' + id_.tilde_name() + '.' + std::to_string(::getpid());
        make_in(domain, hidden, kHomeMode);
        try {
            give(domain, hidden, maker, owner);
            run_in(session_, domain, [&](int parent, Report&) {
                put_in_place(parent, hidden, id_.tilde_name(), id_.homepath());
                flush_directory(parent, id_.homepath());
            });
        } catch (const Failure&) {
            run_in(session_, domain,
                   [&](int parent, Report&) { ::unlinkat(parent, hidden.c_str(), AT_REMOVEDIR); });
            throw;
        }
    }

    // The maker may have put another directory there, so this gives away only a directory that
    // belongs to the maker.
    static void give(const Place& domain, const string& name, const Owner& maker,
                     const Owner& owner) {
        const string path = domain.path + '/' + name;
        const Fd fd(
            ::openat(domain.fd.get(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        struct stat st;
        if (!fd || ::fstat(fd.get(), &st) != 0) throw system_failure(printable(path));
        if (st.st_uid != maker.user) throw system_failure(printable(path), EPERM);
        if (::fchownat(fd.get(), "", owner.user, owner.group, AT_EMPTY_PATH) != 0) {
            throw system_failure(printable(path));
        }
    }

    Session& session_;
    const TSMailUserId& id_;
    const std::optional<Owner>& wanted_;
};

// A caller who is not root can make a home only for himself.
std::optional<Owner> as_asked(const std::optional<Owner>& wanted, const string& home) {
    if (!wanted || ::geteuid() == 0) return wanted;
    if (wanted->user == ::geteuid()) return std::nullopt;
    throw Failure(kExitCannotCreate,
                  printable(home) + ": only root can make a home for another user");
}

void demand_owner(const Owner& found, const std::optional<Owner>& wanted, const string& home) {
    if (!wanted || found.user == wanted->user) return;
    throw Failure(kExitCannotCreate, printable(home) + ": this home is there and belongs to user " +
                                         std::to_string(found.user));
}

}  // namespace

Owner owner_named(const string& text) {
    const std::size_t colon = text.find(':');
    const string name = text.substr(0, colon);
    const struct passwd* entry = user_named(name);
    Owner owner;
    owner.change = true;
    if (entry != nullptr) {
        owner.user = entry->pw_uid;
        owner.group = entry->pw_gid;
    } else if (const auto number = number_in<uid_t>(name); number && colon != string::npos) {
        owner.user = *number;
    } else {
        throw unknown("user", name);
    }
    if (colon != string::npos) owner.group = group_named(text.substr(colon + 1));
    if (owner.user == 0) owner = {};  // root need not change
    return owner;
}

Owner owner_of_made_mailbox(Session& session, const TSMailUserId& id,
                            const std::optional<Owner>& wanted) {
    Homes homes;
    const auto owner = [&]() -> std::optional<Owner> {
        try {
            return owner_of_mailbox(homes.home(id));
        } catch (const Failure& failure) {
            if (failure.code() == kExitNoUser) return std::nullopt;
            throw;
        }
    };
    const auto asked = as_asked(wanted, id.homepath());
    auto found = owner();
    if (!found) {
        HomeMaker(session, id, asked).make();
        found = owner();
        if (found && asked && found->user == asked->user) return *asked;  // with the wanted group
    }
    if (!found) throw system_failure(printable(id.homepath()), ENOENT);
    demand_owner(*found, asked, id.homepath());
    return *found;
}

Place domain_of_new_home(Session& session, const TSMailUserId& id) {
    return HomeMaker(session, id, std::nullopt).domain();
}

}  // namespace Tessaly::tool
