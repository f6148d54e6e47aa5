#include "tools/spool/walk.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <deque>
#include <utility>

#include "base/dir_reader.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"

namespace Tessaly::tool {

namespace {

using std::string;
using std::string_view;

constexpr char kSpool[] = "/var/spool";
constexpr int kMostLinks = 40;  // what the kernel allows in one path
constexpr mode_t kOthersWrite = S_IWGRP | S_IWOTH;

using Names = std::deque<string>;

void put_in_front(Names& names, string_view path) {
    Names parts;
    for (std::size_t begin = 0; begin <= path.size();) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        const string_view part = path.substr(begin, end - begin);
        if (!part.empty() && part != ".") parts.emplace_back(part);
        begin = end + 1;
    }
    names.insert(names.begin(), parts.begin(), parts.end());
}

struct stat status_of(int fd, const string& path) {
    struct stat st;
    if (::fstat(fd, &st) != 0) throw system_failure(printable(path));
    return st;
}

string target_of(int link, const string& path) {
    char target[PATH_MAX];
    const ssize_t n = ::readlinkat(link, "", target, sizeof target);
    if (n < 0) throw system_failure(printable(path));
    return {target, static_cast<std::size_t>(n)};
}

// Opens the entry itself, even if it is a link.
Fd open_itself(int dir, const char* name, const string& path) {
    Fd fd(retry([&] { return ::openat(dir, name, O_PATH | O_NOFOLLOW | O_CLOEXEC); }));
    if (fd) return fd;
    if (errno == ENOENT) throw Failure(kExitNoUser, printable(path) + ": not found", ENOENT);
    throw system_failure(printable(path));
}

void demand_trusted_link(const struct stat& link, const Place& directory, const string& path) {
    if (link.st_uid == 0 || link.st_uid == directory.owner) return;
    throw Failure(kExitCannotCreate,
                  printable(path) + ": symbolic link of user " + std::to_string(link.st_uid) +
                      " is not followed (only root and the directory's owner may put one here)");
}

Place slash() {
    Place root;
    root.fd = open_itself(AT_FDCWD, "/", "/");
    root.path = "";
    const struct stat st = status_of(root.fd.get(), "/");
    root.owner = st.st_uid;
    root.group = st.st_gid;
    root.only_root_writes = only_root_writes(st);
    return root;
}

Place copy_of(const Place& place) {
    return {Fd(::fcntl(place.fd.get(), F_DUPFD_CLOEXEC, 0)), place.path, place.owner, place.group,
            place.only_root_writes};
}

// Goes down through the names and follows trusted links.
Place go(Place at, Names names) {
    for (int links = 0; !names.empty();) {
        const string name = std::move(names.front());
        names.pop_front();
        const string path = at.path + '/' + name;
        Fd fd = open_itself(at.fd.get(), name.c_str(), path);
        const struct stat st = status_of(fd.get(), path);
        if (S_ISLNK(st.st_mode)) {
            demand_trusted_link(st, at, path);
            if (++links > kMostLinks) throw system_failure(printable(path), ELOOP);
            const string target = target_of(fd.get(), path);
            put_in_front(names, target);
            // A user who can change the link decides where the path leads.
            const bool roots = at.only_root_writes && st.st_uid == 0;
            if (target.starts_with('/')) at = slash();
            at.only_root_writes = at.only_root_writes && roots;
        } else if (S_ISDIR(st.st_mode)) {
            at = {std::move(fd), path, st.st_uid, st.st_gid,
                  at.only_root_writes && only_root_writes(st)};
        } else {
            throw Failure(kExitNoUser, printable(path) + ": not a directory", ENOTDIR);
        }
    }
    return at;
}

}  // namespace

bool only_root_writes(const struct stat& directory) {
    return directory.st_uid == 0 && (directory.st_mode & kOthersWrite) == 0;
}

Place spool_root() {
    Place spool;
    spool.fd.reset(retry([] { return ::open(kSpool, O_PATH | O_DIRECTORY | O_CLOEXEC); }));
    if (!spool.fd) throw system_failure(kSpool);
    spool.path = kSpool;
    const struct stat st = status_of(spool.fd.get(), kSpool);
    spool.owner = st.st_uid;
    spool.group = st.st_gid;
    spool.only_root_writes = only_root_writes(st);
    return spool;
}

Place step(const Place& from, string_view name) {
    Place place = go(copy_of(from), {string(name)});
    place.path = from.path + '/' + string(name);
    return place;
}

Place place_at(const string& path) {
    Names names;
    put_in_front(names, string_view(path).substr(string_view(kSpool).size()));
    Place place = go(spool_root(), std::move(names));
    place.path = path;
    return place;
}

std::vector<string> names_in(const Place& directory) {
    const Fd fd(retry(
        [&] { return ::openat(directory.fd.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    if (!fd) throw system_failure(printable(directory.path));
    std::vector<string> names;
    base::DirReader reader(fd.get());
    while (const dirent64* entry = reader.next_real()) names.emplace_back(entry->d_name);
    if (reader.failed()) throw system_failure(printable(directory.path));
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace Tessaly::tool
