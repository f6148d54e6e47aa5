#include "tools/spool/gift.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "tools/cli/failure.h"
#include "tools/cli/text.h"

namespace Tessaly::tool {

namespace {

using std::string;

Fd open_below(const Place& home, const string& path) {
    open_how how = {};
    how.flags = O_PATH | O_NOFOLLOW | O_CLOEXEC;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    return Fd(static_cast<int>(retry(
        [&] { return ::syscall(SYS_openat2, home.fd.get(), path.c_str(), &how, sizeof how); })));
}

}  // namespace

void give_file(const Place& home, const string& path, const Owner& owner) {
    const string shown = printable(home.path + '/' + path);
    const Fd file = open_below(home, path);
    struct stat st;
    if (!file || ::fstat(file.get(), &st) != 0) throw system_failure(shown);
    if (!S_ISREG(st.st_mode) || st.st_nlink != 1) {
        throw Failure(kExitCannotCreate,
                      shown + ": is not given away (not a regular file with one name)");
    }
    if (::fchownat(file.get(), "", owner.user, owner.group, AT_EMPTY_PATH) != 0) {
        throw system_failure(shown);
    }
}

}  // namespace Tessaly::tool
