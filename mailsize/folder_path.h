// The size files' names, and paths of them without allocation.
#ifndef TSMAIL_MAILSIZE_FOLDER_PATH_H
#define TSMAIL_MAILSIZE_FOLDER_PATH_H

#include <climits>
#include <string_view>

#include "base/text.h"

namespace Tessaly::mailsize {

#define TSMAIL_MAILDIRSIZE ".maildirsize"
inline constexpr std::string_view kMaildirSizeFile = TSMAIL_MAILDIRSIZE;
inline constexpr std::string_view kDirtyMarker = TSMAIL_MAILDIRSIZE ".dirty";
#undef TSMAIL_MAILDIRSIZE
inline constexpr std::string_view kFolderSizeFile = ".ts_folder_size";
inline constexpr std::string_view kCacheFile = ".ts_cache";
inline constexpr std::string_view kScanDateFile = ".ts_unread_scan_date";

// <dir>/<name>, cut at the longest path that the system takes (4095 bytes); one at a time on a
// stack.
class FolderPath {
  public:
    FolderPath(std::string_view dir, std::string_view name) : text_(buffer_, sizeof buffer_) {
        text_ << dir << '/' << name;
    }
    FolderPath(const FolderPath&) = delete;
    FolderPath& operator=(const FolderPath&) = delete;

    const char* c_str() { return text_.c_str(); }
    bool cut() const { return text_.cut(); }

  private:
    char buffer_[PATH_MAX];
    base::BoundedText text_;
};

}  // namespace Tessaly::mailsize

#endif
