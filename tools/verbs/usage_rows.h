// What usage and metrics read of all mailboxes, and the sums of it.
#ifndef TSMAIL_TOOLS_VERBS_USAGE_ROWS_H
#define TSMAIL_TOOLS_VERBS_USAGE_ROWS_H

#include <tessaly/MailUserId.h>

#include <array>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tools/spool/mailbox_job.h"

namespace Tessaly::tool {

// A mailbox and its usage, as `usage --json` prints it.
struct UsageRow {
    TSMailUserId id;
    Json object;
};
using UsageRows = std::vector<UsageRow>;

// The number in a field; 0 for null.
long long usage_number(const Json& row, const char* field);

// Appends a row for each mailbox of the spool, or of one domain. With `scheduled`, each row has the
// number of folders that are scheduled for deletion, for which the worker reads two directories
// more.
JobResult read_usage(Session& session, const std::optional<std::string>& domain, bool scheduled,
                     UsageRows& rows);

// One of the numbers that are summed up.
struct UsageSum {
    const char* field;   // in the JSON object
    const char* metric;  // the name that a monitoring system knows
    const char* help;
    long long (*of)(const Json& row);  // what a mailbox adds
};
constexpr std::size_t kUsageSums = 8;
extern const std::array<UsageSum, kUsageSums> kUsageSumTable;

// In the order of the table.
using UsageSums = std::array<long long, kUsageSums>;

UsageSums sums_of(const UsageRows& rows);
// By domain, in byte order of the domains.
std::map<std::string, UsageSums> sums_by_domain(const UsageRows& rows);

Json object_of(const UsageSums& sums);
// Shows an object for each domain.
void show_sums(Session& session, const std::map<std::string, UsageSums>& sums);

}  // namespace Tessaly::tool

#endif
