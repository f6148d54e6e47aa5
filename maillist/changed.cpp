// The flag by which the platform says that the system's lists have changed.
#include <tessaly/maillist.h>
#include <tessaly/support.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {
constexpr std::size_t kChangeFlagOffset = 280944;  // in the shared configuration block
}

int is_mail_list_changed(const char* user) {
    if (user != nullptr && *user != '\0') return 0;
    if (nCfg_debug_zone == nullptr) return 0;
    std::int32_t flag = 0;
    std::memcpy(&flag, static_cast<const char*>(nCfg_debug_zone) + kChangeFlagOffset, sizeof flag);
    return flag;
}
