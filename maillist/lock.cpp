#include "maillist/lock.h"

#include <sys/file.h>

#include "maillist/open.h"
#include "maillist/paths.h"

namespace Tessaly::maillist {

base::Fd mail_list_lock(const char* user, const char* list, unsigned scope) {
    const std::string path = mail_list_build_path(user, list, names::kListLock, true, scope);
    base::Fd fd = open_file(path, O_RDWR | O_CREAT | O_TRUNC);
    if (fd) base::retry([&] { return ::flock(fd.get(), LOCK_EX | LOCK_NB); });
    return fd;
}

}  // namespace Tessaly::maillist
