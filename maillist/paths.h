// Where a list and its lock and temporary files lie.
#ifndef TSMAIL_MAILLIST_PATHS_H
#define TSMAIL_MAILLIST_PATHS_H

#include <string>
#include <string_view>

#include "base/store_names.h"

namespace Tessaly::maillist {

// The path directory/[.]name[suffix]: suffix "" and not hidden for the list itself, that
// of the lock or the temporary file and hidden for its companions. Empty, which no file can be
// opened by, without a list, or without a user where the scope needs one. Throws std::bad_alloc.
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
