#include "maillist/paths.h"

#include <tessaly/MailUserId.h>
#include <tessaly/maillist.h>

#include <cstring>

#include "base/guard.h"
#include "base/text.h"

namespace Tessaly::maillist {

using base::concat;

std::string mail_list_build_path(const char* user, const char* list, std::string_view suffix,
                                 bool hidden, unsigned scope) {
    if (list == nullptr || (user == nullptr && scope != MAIL_LIST_SYSTEM)) return {};
    const char* before_name = hidden ? "/." : "/";
    if (scope == MAIL_LIST_SYSTEM) {
        return concat({"/var/spool/etc/mail", before_name, list, suffix});
    }
    const TSMailUserId id(user);
    const std::string directory = scope == MAIL_LIST_HOME
                                      ? concat({TSMailUserId::MAIL_PATH_PREFIX, "/", user})
                                      : id.fname(MUF_PREFPATH);
    return concat({directory, before_name, id.tilde_name(), ".", list, suffix});
}

}  // namespace Tessaly::maillist

void mail_list_get_file_name(const char* user, const char* list, char* buf, int len,
                             unsigned scope) {
    mail_list_get_path(user, list, buf, len, scope);
}

int mail_list_get_path(const char* user, const char* list, char* buf, int len, unsigned scope) {
    if (buf == nullptr) return -1;
    // Composed first: the user and the list may lie in buf.
    const std::string path = Tessaly::base::no_throw(
        std::string(), [=] { return Tessaly::maillist::list_path(user, list, scope); });
    if (len > 0) {
        const auto size = static_cast<std::size_t>(len);
        const std::size_t length = path.copy(buf, size - 1);
        std::memset(buf + length, 0, size - length);
    }
    return path.empty() ? -1 : 0;
}
