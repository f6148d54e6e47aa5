// The names with which import and export read and write folders outside of the store.
#ifndef TSMAIL_TOOLS_WORK_TRANSFER_NAMES_H
#define TSMAIL_TOOLS_WORK_TRANSFER_NAMES_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Tessaly::tool {

// The mbox file of the folder Work is "Work.mbox"; those of the folders below it are in
// "Work.folders".
inline constexpr std::string_view kMboxSuffix = ".mbox";
inline constexpr std::string_view kBelowSuffix = ".folders";
// Behind the name of an mbox file that is being written.
inline constexpr std::string_view kPartSuffix = ".part";

// The directory of a folder in a Maildir++, as ".Work.2024"; "." for Inbox. Nothing if it cannot
// have one: its name is not UTF-8, or too long.
std::optional<std::string> maildir_name(const std::vector<std::string>& folder);

// The mbox file of a folder, as "Work.folders/2024.mbox". Nothing if it cannot have one.
std::optional<std::string> mbox_name(const std::vector<std::string>& folder);

}  // namespace Tessaly::tool

#endif
