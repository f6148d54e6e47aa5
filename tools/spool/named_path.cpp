#include "tools/spool/named_path.h"

#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <deque>
#include <string_view>
#include <utility>

#include "tools/cli/failure.h"
#include "tools/cli/text.h"

namespace Tessaly::tool {

namespace {

using std::string;
using Names = std::deque<string>;

constexpr int kToPass = O_PATH | O_NOFOLLOW | O_CLOEXEC;
constexpr int kMostLinks = 40;  // what the kernel allows in one path

Failure refused(const string& path, int error) {
    const ExitCode code = error == ENOENT || error == EACCES || error == EPERM || error == ENOTDIR
                              ? kExitNoInput
                              : exit_code_of(error);
    return {code, printable(path) + ": " + error_text(error), error};
}

void put_in_front(Names& names, std::string_view path) {
    Names parts;
    for (std::size_t begin = 0; begin < path.size();) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        if (end > begin) parts.emplace_back(path.substr(begin, end - begin));
        begin = end + 1;
    }
    names.insert(names.begin(), parts.begin(), parts.end());
}

// A walk with root's rights, one name at a time.
class Walk {
  public:
    explicit Walk(const string& path) : path_(path) {
        begin_at(path);
        put_in_front(names_, path);
    }

    Fd open(int flags) {
        while (!names_.empty()) {
            const string name = std::move(names_.front());
            names_.pop_front();
            Fd next(retry([&] { return ::openat(at_.get(), name.c_str(), kToPass); }));
            struct stat st;
            if (!next || ::fstat(next.get(), &st) != 0) throw refused(path_, errno);
            if (S_ISLNK(st.st_mode)) {
                follow(next.get(), st);
            } else if (names_.empty()) {
                return checked(retry([&] {
                    return ::openat(at_.get(), name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC);
                }));
            } else {
                at_ = std::move(next);
            }
        }
        return checked(retry([&] { return ::openat(at_.get(), ".", flags | O_CLOEXEC); }));
    }

  private:
    void begin_at(const string& path) {
        const char* begin = path.starts_with('/') ? "/" : ".";
        at_ = checked(::open(begin, O_PATH | O_DIRECTORY | O_CLOEXEC));
    }

    Fd checked(int fd) const {
        if (fd < 0) throw refused(path_, errno);
        return Fd(fd);
    }

    void follow(int link, const struct stat& st) {
        if (st.st_uid != 0) {
            throw Failure(kExitNoInput, printable(path_) + ": symbolic link of user " +
                                            std::to_string(st.st_uid) +
                                            " is not followed for root");
        }
        if (++links_ > kMostLinks) throw refused(path_, ELOOP);
        char target[PATH_MAX];
        const ssize_t n = ::readlinkat(link, "", target, sizeof target);
        if (n < 0) throw refused(path_, errno);
        const string text(target, static_cast<std::size_t>(n));
        if (text.starts_with('/')) begin_at(text);
        put_in_front(names_, text);
    }

    const string& path_;
    Names names_;
    Fd at_;
    int links_ = 0;
};

}  // namespace

Fd open_named(const string& path, int flags) {
    if (::geteuid() == 0) return Walk(path).open(flags);
    Fd fd(retry([&] { return ::open(path.c_str(), flags | O_CLOEXEC); }));
    if (!fd) throw refused(path, errno);
    return fd;
}

Fd make_named_directory(const string& path) {
    constexpr mode_t kPrivate = 0700;
    constexpr int kDirectory = O_RDONLY | O_DIRECTORY;
    const auto end = path.find_last_not_of('/');
    const auto slash = end == string::npos ? end : path.rfind('/', end);
    const string parent = slash == string::npos ? "." : path.substr(0, slash + 1);
    const string name = path.substr(slash == string::npos ? 0 : slash + 1,
                                    end - (slash == string::npos ? 0 : slash + 1) + 1);
    if (end == string::npos) return open_named(path, kDirectory);
    const Fd above = open_named(parent, kDirectory);
    if (::mkdirat(above.get(), name.c_str(), kPrivate) != 0 && errno != EEXIST) {
        throw system_failure(printable(path));
    }
    return open_named(path, kDirectory);
}

Fd open_regular(int directory, const char* name) {
    Fd fd(retry([&] {
        return ::openat(directory, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    }));
    struct stat file, above;
    if (!fd || ::fstat(fd.get(), &file) != 0 || ::fstat(directory, &above) != 0) return Fd();
    const bool foreign = ::geteuid() == 0 && file.st_nlink > 1 && file.st_uid != above.st_uid;
    if (S_ISREG(file.st_mode) && !foreign) return fd;
    errno = S_ISREG(file.st_mode) ? EPERM : EINVAL;
    return Fd();
}

}  // namespace Tessaly::tool
