// How much of the spool may still be given to archive accounts.
#include <sys/vfs.h>
#include <tessaly/mailstore.h>
#include <tessaly/support.h>

#include <cstdint>
#include <cstring>

#include "base/fd.h"

namespace {

constexpr char kSpool[] = "/var/spool";
constexpr int kShareDivisor = 5;
constexpr std::uint64_t kGibibyte = std::uint64_t{1} << 30;

// The table of archive accounts, and the offsets of the fields that are read.
constexpr int kAccountTable = 670;
constexpr std::size_t kNameOffset = 4;
constexpr std::size_t kQuotaOffset = 640;  // unsigned 16 bit, gibibytes

std::uint32_t quota_of(const char* row) {
    std::uint16_t quota;
    std::memcpy(&quota, row + kQuotaOffset, sizeof quota);
    return quota;
}

// The sum of all quotas but those of the account `exclude`. The handle is asked for at each step:
// the query library may replace it at any time and keeps the place itself.
std::uint32_t given_quota(const char* exclude) {
    std::uint32_t sum = 0;
    void* row = ::kqf_query_table_head(::nCfg_query(kAccountTable));
    while (row != nullptr) {
        const char* bytes = static_cast<const char*>(row);
        if (exclude == nullptr || std::strcmp(bytes + kNameOffset, exclude) != 0) {
            sum += quota_of(bytes);
        }
        row = ::kqf_query_get_next(::nCfg_query(kAccountTable));
    }
    return sum;
}

// The unit of f_blocks. f_bsize, the best size for transfers, may differ from it, as on FUSE.
// f_frsize is 0 on file systems that do not set it.
std::uint64_t block_size(const struct statfs& fs) {
    return static_cast<std::uint64_t>(fs.f_frsize != 0 ? fs.f_frsize : fs.f_bsize);
}

// The archives' share of a file system in whole gibibytes, counted in 32 bits as callers do.
std::int32_t share_of(const struct statfs& fs) {
    const std::uint64_t bytes = std::uint64_t{fs.f_blocks} * block_size(fs);
    return static_cast<std::int32_t>(bytes / kGibibyte) / kShareDivisor;
}

}  // namespace

int tsm_archive_avail_quota(const char* exclude) {
    const std::uint32_t given = given_quota(exclude);
    struct statfs spool = {};
    if (Tessaly::base::retry([&] { return ::statfs(kSpool, &spool); }) != 0) return 0;
    if (spool.f_blocks == 0) return 0;
    return static_cast<int>(static_cast<std::uint32_t>(share_of(spool)) - given);
}
