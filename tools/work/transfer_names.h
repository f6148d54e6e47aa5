// The names with which import and export read and write folders outside of the store.
#ifndef TSMAIL_TOOLS_WORK_TRANSFER_NAMES_H
#define TSMAIL_TOOLS_WORK_TRANSFER_NAMES_H

#include <string_view>

namespace Tessaly::tool {

// The mbox file of the folder Work is "Work.mbox"; those of the folders below it are in
// "Work.folders".
inline constexpr std::string_view kMboxSuffix = ".mbox";
inline constexpr std::string_view kBelowSuffix = ".folders";

}  // namespace Tessaly::tool

#endif
