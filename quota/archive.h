// The archive accounts of the configuration, and the share of the spool that they may get.
#ifndef TSMAIL_QUOTA_ARCHIVE_H
#define TSMAIL_QUOTA_ARCHIVE_H

#include <tessaly/support.h>

#include <cstdint>
#include <cstring>

#include "base/archive_account.h"

namespace Tessaly::quota {

// Calls visit(name, gibibytes) for each account. The handle is asked for at each step: the query
// library may replace it at any time and keeps the place itself.
template <class Visit>
void visit_archive_accounts(Visit visit) {
    const void* row = ::kqf_query_table_head(::nCfg_query(base::kArchiveAccounts));
    for (; row != nullptr; row = ::kqf_query_get_next(::nCfg_query(base::kArchiveAccounts))) {
        const char* bytes = static_cast<const char*>(row);
        std::uint16_t gibibytes;
        std::memcpy(&gibibytes, bytes + offsetof(base::ArchiveAccount, quota_gib),
                    sizeof gibibytes);
        visit(bytes + offsetof(base::ArchiveAccount, name), gibibytes);
    }
}

// Stores how many gibibytes of the spool's file system all archive accounts together may get,
// counted in 32 bits as callers do. False with errno if the file system cannot be asked; errno is 0
// if it has no size.
bool archive_share(std::int32_t& gibibytes);

}  // namespace Tessaly::quota

#endif
