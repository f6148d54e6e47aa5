#include "tools/spool/identity.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>

#include "tools/cli/failure.h"
#include "tools/cli/text.h"

namespace Tessaly::tool {

namespace {

std::vector<gid_t> supplementary_groups() {
    std::vector<gid_t> groups(static_cast<std::size_t>(std::max(::getgroups(0, nullptr), 0)));
    const int n = ::getgroups(static_cast<int>(groups.size()), groups.data());
    groups.resize(static_cast<std::size_t>(std::max(n, 0)));
    return groups;
}

// The kernel keeps an identity for each thread. The C library's functions change those of all, so
// that these calls are made directly.
#ifdef SYS_setgroups32
constexpr long kSetGroups = SYS_setgroups32, kSetGroup = SYS_setresgid32,
               kSetUser = SYS_setresuid32;
#else
constexpr long kSetGroups = SYS_setgroups, kSetGroup = SYS_setresgid, kSetUser = SYS_setresuid;
#endif

bool set_groups(const std::vector<gid_t>& groups) {
    return ::syscall(kSetGroups, groups.size(), groups.data()) == 0;
}

bool set_effective_group(gid_t group) { return ::syscall(kSetGroup, -1, group, -1) == 0; }

bool set_effective_user(uid_t user) { return ::syscall(kSetUser, -1, user, -1) == 0; }

}  // namespace

AsOwner::AsOwner(const Session& session, const TSMailUserId& id) : group_(::getegid()) {
    const std::string path = id.mailpath();
    struct stat st;
    if (::geteuid() != 0 || ::stat(path.c_str(), &st) != 0 || st.st_uid == 0) return;
    groups_ = supplementary_groups();
    if (take(st.st_uid, st.st_gid) && ::euidaccess(path.c_str(), R_OK | X_OK) == 0) {
        session.detail(
            fmt::format("working as the owner of {}, user {}", printable(path), st.st_uid));
        return;
    }
    const std::string reason = error_text(errno);
    give_back();
    session.warn("working as root, not as the owner of " + printable(path) + ": " + reason);
}

// The user last: without root's rights the groups could not be set any more.
bool AsOwner::take(uid_t user, gid_t group) {
    taken_ = true;
    return set_groups({group}) && set_effective_group(group) && set_effective_user(user);
}

AsOwner::~AsOwner() {
    if (taken_) give_back();
}

// To go on with somebody else's rights would be worse than to stop.
void AsOwner::give_back() noexcept {
    const bool back = set_effective_user(0) && set_effective_group(group_) && set_groups(groups_);
    if (!back) std::abort();
    taken_ = false;
}

}  // namespace Tessaly::tool
