#include "mailsize/dirty.h"

#include <fcntl.h>
#include <tessaly/MailUserId.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <climits>
#include <string>

#include "base/locked_stream.h"
#include "base/store_file.h"
#include "base/store_names.h"
#include "base/text.h"
#include "mailuser/direct.h"

namespace Tessaly::mailsize {

namespace {

constexpr std::string_view kMailRoot = "/mail/";

// Creates the marker in a directory, if there is one. The path is made in one buffer, first up to
// the directory.
bool mark_dirty(std::string_view maildir) {
    char buffer[PATH_MAX];
    base::BoundedText path(buffer, sizeof buffer);
    path << maildir;
    if (path.cut() || ::access(path.c_str(), F_OK) != 0) return false;
    path << '/' << names::kDirtyMarker;
    base::LockedStream marker(path.c_str(), "w");  // its being there is all that counts
    return true;
}

}  // namespace

bool mark_owner_dirty(std::string_view size_file) {
    const auto npos = std::string_view::npos;
    if (size_file.find(names::kMaildirSize) == npos && size_file.find(names::kFolderSize) == npos) {
        return false;
    }
    const auto root = size_file.find(kMailRoot);
    if (root == npos) return false;
    mark_dirty(size_file.substr(0, root + kMailRoot.size()));
    return true;
}

}  // namespace Tessaly::mailsize

int tsl_reset_quota_flag_by_path(const char* maildir) {
    if (maildir == nullptr || *maildir == '\0') return -1;
    return Tessaly::mailsize::mark_dirty(maildir) ? 0 : -1;
}

int tsl_reset_quota_flag_by_user(const char* user) {
    if (user == nullptr || *user == '\0') return -1;
    Tessaly::TSMailUserId(user).quota_reset();
    return 0;
}

namespace Tessaly {

void TSMailUserId::quota_reset() const {
    constexpr int kLine = 324;  // part of the exception as callers know it
    if (type_ == MAILBOX_DIRECT) throw_not_implemented("quota_reset", kLine);
    const std::string path = base::concat({mailpath(), "/", names::kDirtyMarker});
    base::open_for_writing(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC);  // and closed
}

}  // namespace Tessaly
