#include "tools/work/own_names.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <tessaly/maillist.h>

#include <algorithm>

#include "base/store_names.h"
#include "tools/cli/descriptors.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/work/paths.h"

namespace Tessaly::tool {

namespace {

using std::string;

// "ann~site.test.whitelist", ".ann~site.test.whitelist.lock": the name with another address; "" if
// it does not have the first one.
string renamed(const string& name, const string& from, const string& to) {
    const std::size_t begin = name.starts_with('.') ? 1 : 0;
    if (name.compare(begin, from.size(), from) != 0) return "";
    const string rest = name.substr(begin + from.size());
    return rest.starts_with('.') ? name.substr(0, begin) + to + rest : "";
}

bool is_same_file(int directory, const string& a, const string& b) {
    struct stat first, second;
    return ::fstatat(directory, a.c_str(), &first, AT_SYMLINK_NOFOLLOW) == 0 &&
           ::fstatat(directory, b.c_str(), &second, AT_SYMLINK_NOFOLLOW) == 0 &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

// Without replacing a file, where the file system can promise that.
bool move(int directory, const string& from, const string& to) {
    if (rename_new(directory, from.c_str(), directory, to.c_str())) return true;
    if (errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP) return errno == ENOENT;
    if (::linkat(directory, from.c_str(), directory, to.c_str(), 0) != 0 &&
        !is_same_file(directory, from, to)) {
        return errno == ENOENT;
    }
    return ::unlinkat(directory, from.c_str(), 0) == 0;
}

std::vector<string> lines_if_any(const AddressList& list) {
    return list.exists() ? list.lines() : std::vector<string>();
}

}  // namespace

void rename_own_files(const TSMailUserId& home, const TSMailUserId& from, const TSMailUserId& to) {
    const string path = home.prefpath();
    const Fd directory(
        retry([&] { return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    if (!directory && errno == ENOENT) return;
    if (!directory) throw system_failure(printable(path));
    for (const string& name : names_in(path)) {
        const string other = renamed(name, from.tilde_name(), to.tilde_name());
        if (other.empty() || move(directory.get(), name, other)) continue;
        const string taken = printable(in(path, other));
        if (errno == EEXIST)
            throw Failure(kExitCannotCreate, taken + ": this name is taken", EEXIST);
        throw system_failure(taken);
    }
}

void replace_address(const AddressList& list, const string& from, const string& to) {
    const std::vector<string> lines = lines_if_any(list);
    const auto found = std::find(lines.begin(), lines.end(), from);
    if (found == lines.end()) return;
    const bool twice = std::find(lines.begin(), lines.end(), to) != lines.end() ||
                       std::find(found + 1, lines.end(), from) != lines.end();
    if (!twice) return list.replace(static_cast<unsigned>(found - lines.begin()) + 1, to);
    if (list.add(to) == AddressList::Added::full) {
        throw Failure(kExitCannotCreate, printable(list.path()) + ": the list is full");
    }
    list.remove(from);
}

void rename_domain_in_lists(const TSMailUserId& id, const string& from, const string& to) {
    const string suffix = '@' + from;
    for (const auto name : {names::kPrimaryAddresses, names::kSecondaryAddresses}) {
        const AddressList list(id.address(true), string(name), MAIL_LIST_USER);
        for (const string& line : lines_if_any(list)) {
            if (!line.ends_with(suffix)) continue;
            replace_address(list, line, line.substr(0, line.size() - from.size()) + to);
        }
    }
}

}  // namespace Tessaly::tool
