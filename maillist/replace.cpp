// The lock of a list does not stop a process, so two processes may write a new list at the same
// time and under the same temporary name. If both wrote into one file, or one moved what the other
// had not finished, the list would be torn. So the content goes into a file without a name, which
// gets the temporary name when it is whole.
#include "maillist/replace.h"

#include <fcntl.h>
#include <tessaly/support.h>
#include <unistd.h>

#include <cerrno>

#include "base/fd.h"
#include "base/io.h"
#include "base/store_file.h"
#include "base/text.h"

namespace Tessaly::maillist {

namespace {

constexpr int kNamingAttempts = 100;

// Closes the file. Whether everything that was written has arrived.
bool close_written(base::Fd& fd) { return ::close(fd.release()) == 0 || errno == EINTR; }

// Gives an unnamed file its name. A file that has the name is removed: a stale temporary file, or
// the whole one of another process, whose list is then replaced by this one.
bool name_file(int fd, const std::string& name) {
    char self[64];
    base::BoundedText(self, sizeof self) << "/proc/self/fd/" << fd << '\0';
    for (int attempt = 0; attempt < kNamingAttempts; ++attempt) {
        if (::linkat(AT_FDCWD, self, AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0) return true;
        if (errno != EEXIST) return false;
        if (::unlink(name.c_str()) != 0 && errno != ENOENT) return false;
    }
    errno = EEXIST;
    return false;
}

bool write_unnamed(const std::string& path, std::string_view content) {
    const std::string directory = path.substr(0, path.rfind('/'));
    constexpr int kFlags = O_WRONLY | O_TMPFILE | O_CLOEXEC;
    base::Fd fd(base::retry([&] { return ::open(directory.c_str(), kFlags, 0666); }));
    if (!fd || !base::write_all(fd.get(), content)) return false;
    if (!name_file(fd.get(), path)) return false;
    if (close_written(fd)) return true;
    const int saved = errno;
    ::unlink(path.c_str());
    errno = saved;
    return false;
}

bool write_named(const std::string& path, std::string_view content) {
    base::Fd fd = base::open_for_writing(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC);
    if (!fd) return false;
    if (base::write_all(fd.get(), content) && close_written(fd)) return true;
    const int saved = errno;
    ::unlink(path.c_str());
    errno = saved;
    return false;
}

bool write_temporary(const std::string& path, std::string_view content) {
    if (write_unnamed(path, content)) return true;
    // Some file systems have no unnamed files, and without /proc they cannot be named.
    if (errno != EOPNOTSUPP && errno != ENOENT) return false;
    return write_named(path, content);
}

}  // namespace

bool replace_list(const std::string& list, const std::string& temporary, std::string_view content) {
    if (!write_temporary(temporary, content)) return false;
    // ENOENT: another process has moved it. A file that has the name now is another one.
    const bool moved = ::tsm_movefile(temporary.c_str(), list.c_str()) == 0 || errno == ENOENT;
    if (!moved) ::unlink(temporary.c_str());
    return true;
}

}  // namespace Tessaly::maillist
