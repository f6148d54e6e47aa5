// The configuration file: its values, and the one reader that checks them.
#ifndef TSMAIL_SUPPORT_CONFIG_FILE_H
#define TSMAIL_SUPPORT_CONFIG_FILE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Tessaly::support {

// A row of table 670 as libtsmail reads it.
struct ArchiveAccount {
    static constexpr std::size_t kNameRoom = 636;

    std::uint32_t reserved = 0;
    char name[kNameRoom] = {};  // NUL-terminated
    std::uint16_t quota_gib = 0;
};
static_assert(offsetof(ArchiveAccount, name) == 4);
static_assert(offsetof(ArchiveAccount, quota_gib) == 640);

// All values. A new object has those that hold without a file.
struct Config {
    std::int32_t timezone = 0;
    std::string postmaster;  // empty: base::default_postmaster
    std::string mail_user;   // empty: none
    std::vector<ArchiveAccount> archive_accounts;
};

// What is wrong at a place in the file. A warning does not keep the file from being used.
struct Problem {
    unsigned line;
    unsigned column;
    bool warning;
    std::string message;
};

// Longer files are refused unread.
constexpr long kLargestFile = 1 << 20;

// Reads the text of a file into `config` and appends what is wrong with it, in the order of places.
// The file may be used only if nothing but warnings was appended. Throws std::bad_alloc.
void read_config(std::string_view text, Config& config, std::vector<Problem>& problems);

// How many of them keep the file from being used.
std::size_t count_errors(const std::vector<Problem>& problems);

}  // namespace Tessaly::support

#endif
