// Where a list and its lock and temporary files lie.
#ifndef TSMAIL_MAILLIST_PATHS_H
#define TSMAIL_MAILLIST_PATHS_H

#include <string>
#include <string_view>

#include "base/store_names.h"

namespace Tessaly::maillist {

// The path directory/[.]name[suffix]. The list itself has no suffix and is not hidden; its lock and
// its temporary file have theirs and are hidden. Empty, so that no file can be opened by it,
// without a list, and without a user if the scope needs one. Throws std::bad_alloc.
std::string mail_list_build_path(const char* user, const char* list, std::string_view suffix,
                                 bool hidden, unsigned scope);

inline std::string list_path(const char* user, const char* list, unsigned scope) {
    return mail_list_build_path(user, list, "", false, scope);
}
inline std::string temporary_path(const char* user, const char* list, unsigned scope) {
    return mail_list_build_path(user, list, names::kListTemporary, true, scope);
}

}  // namespace Tessaly::maillist

#endif
