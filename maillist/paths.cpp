#include "maillist/paths.h"

#include <tessaly/MailUserId.h>
#include <tessaly/maillist.h>

#include <algorithm>
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
    const std::size_t size = len < 0 ? 0 : static_cast<std::size_t>(len);
    std::memset(buf, 0, size);
    return Tessaly::base::no_throw(-1, [&] {
        const std::string path = Tessaly::maillist::list_path(user, list, scope);
        if (path.empty()) return -1;
        if (size > 0) std::memcpy(buf, path.c_str(), std::min(path.size(), size - 1));
        return 0;
    });
}
