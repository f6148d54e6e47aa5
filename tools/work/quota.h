// What a mailbox keeps about its quota, notices about it, and the share of the archive accounts.
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

// The flags in the order of Word numbers.
enum QuotaFlag : int { kWarningFlag, kExceededFlag };

// A flag is read in two ways: whether it is there, and the number in it (0 if there is none).
struct FlagState {
    bool set;
    int value;
};

struct KeptTotals {
    std::uint64_t bytes;
    std::uint64_t messages;
};

struct QuotaState {
    FlagState warning;
    FlagState exceeded;
    std::optional<KeptTotals> kept;  // none: not to be trusted until somebody recounts
    bool dirty;
    std::optional<std::time_t> last_notice;
    bool notice_due;
};

// Changes nothing (but that totals found damaged are marked for a recount by the library).
QuotaState quota_state(const TSMailUserId& id);

// These look afterwards whether it happened: a Failure if not.
void set_quota_flag(const TSMailUserId& id, QuotaFlag flag, int value);
void clear_quota_flag(const TSMailUserId& id, QuotaFlag flag);
void mark_totals_untrusted(const TSMailUserId& id);

// A notice's texts. Header texts that would make more than one line, recipients that would be more
// than one, and a body that would end the message early are refused: a Failure with kExitData.
struct Notice {
    std::optional<std::string> from;
    std::string to;
    std::string subject;
    std::string body;
};
void check_notice(const Notice& notice);
// The body's file; "-" is standard input. One line end at its end is left out: sending adds one.
std::string read_notice_body(const std::string& file);
// Whether the last notice was long enough ago; then the time of this one is kept for the next.
struct Guard {
    bool due;
    bool kept;  // false: the time could not be written
};
Guard pass_notice_guard(const TSMailUserId& id);
// A Failure if there is no submission program.
void demand_submission_program();
// Hands it to the submission program; a Failure unless that took it.
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
