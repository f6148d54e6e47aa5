// Removing a message while its folder's total stays right.
#include <sys/stat.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "base/store_names.h"
#include "mailsize/folder_path.h"
#include "mailsize/name_size.h"

namespace Tessaly::mailsize {

namespace {

using std::string_view;

// The message's size by its name or else by its file; less than 1 if neither tells.
long long size_of_message(const char* path) {
    const char* const slash = std::strrchr(path, '/');
    const long long size = size_in_name(slash == nullptr ? path : slash + 1);
    struct stat st;
    if (size >= 1 || ::stat(path, &st) != 0) return size;
    return st.st_size;
}

// Cuts the last component off a path. False without a '/' in front of it.
bool cut_last(string_view& path, string_view& last) {
    const auto slash = path.rfind('/');
    if (slash == string_view::npos) return false;
    last = path.substr(slash + 1);
    path = path.substr(0, slash);
    return true;
}

// Takes a message out of the total of its folder. A message in tmp was never counted.
void record_unlinked_size(string_view path, long long size) {
    string_view name, sub;
    if (!cut_last(path, name) || !cut_last(path, sub)) return;
    if (sub != names::kCur && sub != names::kNew) return;
    FolderPath file(path, names::kFolderSize);
    if (!file.cut()) tsl_append_mail_folder_size(file.c_str(), -size, -1);
}

}  // namespace

}  // namespace Tessaly::mailsize

int tsl_maildir_unlink_mail(const char* path) {
    namespace mailsize = Tessaly::mailsize;
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    // First the record: a process that dies in between leaves a total that is too small, which a
    // recount finds, instead of one that still counts a removed message.
    if (const long long size = mailsize::size_of_message(path); size >= 1) {
        mailsize::record_unlinked_size(path, size);
    }
    return ::unlink(path);
}
