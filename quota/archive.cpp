// How much of the spool may still be given to archive accounts.
#include "quota/archive.h"

#include <sys/vfs.h>
#include <tessaly/mailstore.h>

#include <cerrno>

#include "base/fd.h"

namespace Tessaly::quota {

namespace {

constexpr char kSpool[] = "/var/spool";
constexpr int kShareDivisor = 5;
constexpr std::uint64_t kGibibyte = std::uint64_t{1} << 30;

// The sum of all quotas but those of the account `exclude`.
std::uint32_t given_quota(const char* exclude) {
    std::uint32_t sum = 0;
    visit_archive_accounts([&](const char* name, std::uint32_t quota) {
        if (exclude == nullptr || std::strcmp(name, exclude) != 0) sum += quota;
    });
    return sum;
}

// The unit of f_blocks. f_bsize, the best size for transfers, may differ from it, as on FUSE.
// f_frsize is 0 on file systems that do not set it.
std::uint64_t block_size(const struct statfs& fs) {
    return static_cast<std::uint64_t>(fs.f_frsize != 0 ? fs.f_frsize : fs.f_bsize);
}

}  // namespace

bool archive_share(std::int32_t& gibibytes) {
    struct statfs fs = {};
    if (base::retry([&] { return ::statfs(kSpool, &fs); }) != 0) return false;
    errno = 0;
    if (fs.f_blocks == 0) return false;
    const std::uint64_t bytes = std::uint64_t{fs.f_blocks} * block_size(fs);
    gibibytes = static_cast<std::int32_t>(bytes / kGibibyte) / kShareDivisor;
    return true;
}

}  // namespace Tessaly::quota

int tsm_archive_avail_quota(const char* exclude) {
    namespace quota = Tessaly::quota;
    const std::uint32_t given = quota::given_quota(exclude);
    std::int32_t share = 0;
    if (!quota::archive_share(share)) return 0;
    return static_cast<int>(static_cast<std::uint32_t>(share) - given);
}
