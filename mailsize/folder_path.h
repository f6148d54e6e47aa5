// Paths of a folder's files without allocation.
#ifndef TSMAIL_MAILSIZE_FOLDER_PATH_H
#define TSMAIL_MAILSIZE_FOLDER_PATH_H

#include <climits>
#include <string_view>

#include "base/text.h"

namespace Tessaly::mailsize {

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
