// Removing a user's files by kind, and the user's address from the address lists of others.
#include <tessaly/MailUserId.h>
#include <tessaly/maillist.h>
#include <tessaly/mailstore.h>
#include <tessaly/support.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string>

#include "base/fd.h"
#include "base/guard.h"
#include "base/store_names.h"

namespace {

using Tessaly::TSMailUserId;
namespace base = Tessaly::base;

// What removing a kind means, in the order in which it is done.
enum Step : unsigned {
    unlink_file = 1,      // and nothing else
    leave_primary = 2,    // leave the lists of those whom the user calls primary addresses
    leave_secondary = 4,  // and of those whom the user calls secondary ones
    clean_directory = 8,
};

struct KindRow {
    int kind;
    unsigned steps;
};
constexpr KindRow kKinds[] = {
    {MUF_WHITELIST, unlink_file},
    {MUF_BLACKLIST, unlink_file},
    {MUF_BLOCKLIST, unlink_file},
    {MUF_MAILPATH, clean_directory},
    {MUF_PREFPATH, leave_primary | leave_secondary | clean_directory},
    {MUF_QUOTA_WARNING_FLAG, unlink_file},
    {MUF_QUOTA_EXCEEDED_FLAG, unlink_file},
    {MUF_BULK, unlink_file},  // a folder: it is refused
    {MUF_HOMEPATH, leave_primary | leave_secondary | clean_directory},
    {MUF_PRIMARY_ADDR, leave_primary},
    {MUF_SECONDARY_ADDR, leave_secondary},
    {MUF_PREF_FILE, unlink_file},
    {MUF_LOCAL_HOMEPATH, clean_directory},
};

// An address in a user's primary list has that user in its secondary list, and the other way round.
struct Relation {
    Step step;
    const char* own_list;
    const char* partners_list;
};
using Tessaly::names::kPrimaryAddresses, Tessaly::names::kSecondaryAddresses;
constexpr Relation kRelations[] = {
    {leave_primary, kPrimaryAddresses.data(), kSecondaryAddresses.data()},
    {leave_secondary, kSecondaryAddresses.data(), kPrimaryAddresses.data()},
};

unsigned steps_of(int kind) {
    const auto* row = std::find_if(std::begin(kKinds), std::end(kKinds),
                                   [kind](const KindRow& r) { return r.kind == kind; });
    return row == std::end(kKinds) ? 0 : row->steps;
}

bool exists(const std::string& path) {
    return base::retry([&] { return ::access(path.c_str(), F_OK); }) == 0;
}
int unlink(const std::string& path) {
    return base::retry([&] { return ::unlink(path.c_str()); });
}

// Takes the user's own address out of the list of each partner.
void leave_partners(const char* user, const char* own_address, const Relation& relation) {
    mail_list_names partners;
    if (mail_list_get_names(user, relation.own_list, &partners, 0, MAIL_LIST_USER) != 0) return;
    for (std::uint32_t i = 0; i < partners.count; ++i) {
        mail_list_delete_from(partners.names[i], relation.partners_list, own_address,
                              MAIL_LIST_USER);
    }
    mail_list_free_names(&partners);
}

int delete_user_file(int kind, const char* address) {
    TSMailUserId user{std::string(address)};
    if (kind == MUF_LOCAL_HOMEPATH) user.type(Tessaly::MAILBOX_LOCAL);
    const std::string path = user.fname(kind);
    const std::string own_address = user.address();
    const unsigned steps = steps_of(kind);

    if ((steps & unlink_file) != 0) return exists(path) ? unlink(path) : 0;
    for (const Relation& relation : kRelations) {
        if ((steps & relation.step) == 0 || !exists(path)) continue;
        leave_partners(address, own_address.c_str(), relation);
        unlink(path);  // refused where it is a directory
    }
    if ((steps & clean_directory) == 0 || !exists(path)) return 0;
    return ::tsm_clean_dir(path.c_str(), 0) == 0 ? 0 : -1;
}

}  // namespace

int tsl_delete_user_file(int kind, const char* address) {
    if (address == nullptr || *address == '\0') return -1;
    return base::no_throw(-1, [=] { return delete_user_file(kind, address); });
}
