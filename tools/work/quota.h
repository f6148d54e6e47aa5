// A mailbox's quota flags and totals, the notices about its quota, and the archive accounts' share.
#ifndef TSMAIL_TOOLS_WORK_QUOTA_H
#define TSMAIL_TOOLS_WORK_QUOTA_H

#include <tessaly/MailUserId.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Tessaly::tool {

// The quota flags; a Word's number is one of these values.
enum QuotaFlag : int { kWarningFlag, kExceededFlag };

// A flag has two properties: whether it is set, and its number (0 if it has none).
struct FlagState {
    bool set;
    int value;
};

// The totals as the quota daemon reads them.
struct QuotaTotals {
    std::uint64_t bytes;
    std::uint64_t messages;
};

struct QuotaState {
    FlagState warning;
    FlagState exceeded;
    std::optional<QuotaTotals> kept;  // nothing: not to be trusted until a recount
    bool dirty;
    std::optional<std::time_t> last_notice;
    bool notice_due;
};

// Changes nothing, except that the library marks damaged totals for a recount.
QuotaState quota_state(const TSMailUserId& id);

// Whether the flag's file exists. What cannot be looked at counts as missing.
bool has_quota_flag(const TSMailUserId& id, QuotaFlag flag);

// Each of these checks its effect afterwards: a Failure if the change did not happen.
void set_quota_flag(const TSMailUserId& id, QuotaFlag flag, int value);
void clear_quota_flag(const TSMailUserId& id, QuotaFlag flag);
void mark_totals_untrusted(const TSMailUserId& id);

// A notice's texts. check_notice() refuses, by a Failure with kExitData, header texts of more than
// one line, more than one recipient, and a body that would end the message early.
struct Notice {
    std::optional<std::string> from;
    std::string to;
    std::string subject;
    std::string body;
};
void check_notice(const Notice& notice);
// Reads the body's file; "-" is standard input. Drops one line end at the end, as sending adds one.
std::string read_notice_body(const std::string& file);
// Whether a notice is due. If it is, its time is stored for the next check.
struct Guard {
    bool due;
    bool kept;  // false: the time could not be written
};
Guard pass_notice_guard(const TSMailUserId& id);
// A Failure if there is no submission program.
void demand_submission_program();
// Hands the notice to the submission program. A Failure unless the program accepts it.
void send_notice(const Notice& notice);

struct ArchiveAccount {
    std::string name;
    unsigned quota;  // GiB
    bool counts;
};
struct ArchiveShare {
    std::vector<ArchiveAccount> accounts;
    std::int64_t share;  // all in GiB
    std::int64_t given;
    std::int64_t free;
};
ArchiveShare archive_share(const std::optional<std::string>& exclude);

}  // namespace Tessaly::tool

#endif
