// The rows of the configuration's table of archive accounts, which the bundled configuration-query
// library makes and the quota subsystem reads.
#ifndef TSMAIL_BASE_ARCHIVE_ACCOUNT_H
#define TSMAIL_BASE_ARCHIVE_ACCOUNT_H

#include <cstddef>
#include <cstdint>

namespace Tessaly::base {

inline constexpr int kArchiveAccounts = 670;  // the table's number

struct ArchiveAccount {
    static constexpr std::size_t kNameRoom = 636;

    std::uint32_t reserved = 0;
    char name[kNameRoom] = {};  // NUL-terminated
    std::uint16_t quota_gib = 0;
};
static_assert(offsetof(ArchiveAccount, name) == 4);
static_assert(offsetof(ArchiveAccount, quota_gib) == 640);

}  // namespace Tessaly::base

#endif
