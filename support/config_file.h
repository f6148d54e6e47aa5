// The configuration file: its values, and the one reader that checks them.
#ifndef TSMAIL_SUPPORT_CONFIG_FILE_H
#define TSMAIL_SUPPORT_CONFIG_FILE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/archive_account.h"

namespace Tessaly::support {

using base::ArchiveAccount;

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
