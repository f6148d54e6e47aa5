#include "maillist/lock.h"

#include <sys/file.h>

#include "base/store_file.h"
#include "maillist/paths.h"

namespace Tessaly::maillist {

base::Fd mail_list_lock(const char* user, const char* list, unsigned scope) {
    const std::string path = mail_list_build_path(user, list, names::kListLock, true, scope);
    base::Fd fd = base::open_for_writing(path.c_str(), O_RDWR | O_CREAT | O_TRUNC);
    if (fd) base::retry([&] { return ::flock(fd.get(), LOCK_EX | LOCK_NB); });
    return fd;
}

}  // namespace Tessaly::maillist
