#include "tools/work/address_list.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <tessaly/maillist.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

#include "base/store_names.h"
#include "tools/cli/descriptors.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/work/paths.h"

namespace Tessaly::tool {

namespace {

using std::string;

constexpr std::size_t kLineBuffer = 256;  // the library's buffer for a line, NUL included
constexpr std::size_t kLongestEntry = kLineBuffer - 2;

string path_of(const string& user, const string& list, unsigned scope) {
    char path[PATH_MAX];
    if (mail_list_get_path(user.c_str(), list.c_str(), path, sizeof path, scope) != 0) {
        throw std::bad_alloc();
    }
    return path;
}

// The line without its line end.
string stripped(const char* line) {
    string text(line);
    while (text.ends_with('\n')) {
        text.pop_back();
        if (text.ends_with('\r')) text.pop_back();
    }
    return text;
}

// The library tells only that it failed. An administrator must make a missing directory.
Failure list_failure(const string& path, int error) {
    if (error != ENOENT) return system_failure(printable(path), error);
    return {kExitCannotCreate, printable(path) + ": there is no such directory"};
}

bool last_line_is_open(const string& path) {
    const Fd fd(retry([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); }));
    const off_t end = fd ? ::lseek(fd.get(), 0, SEEK_END) : 0;
    char last = '\n';
    return end > 0 && retry([&] { return ::pread(fd.get(), &last, 1, end - 1); }) == 1 &&
           last != '\n';
}

}  // namespace

std::vector<string> known_lists() {
    return {"whitelist",     "blacklist", "blocklist",   "primaryaddr",
            "secondaryaddr", "emailtag",  "calendartag", "favorlist"};
}

std::vector<string> list_names(const string& user, unsigned scope) {
    const string any = path_of(user, "", scope);
    const auto slash = any.rfind('/');
    const string directory = any.substr(0, slash), prefix = any.substr(slash + 1);
    std::vector<string> lists;
    for (const string& file : names_in(directory)) {
        const string name = file.substr(std::min(prefix.size(), file.size()));
        const bool is_list = file.starts_with(prefix) && !name.empty() && !name.starts_with('.') &&
                             (scope != MAIL_LIST_USER || name != names::kPreferences);
        struct stat st;
        if (!is_list || ::lstat(in(directory, file).c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
            continue;
        }
        lists.push_back(name);
    }
    return lists;
}

const char* against_entry(std::string_view entry) {
    if (entry.empty()) return "it is empty";
    if (entry.size() > kLongestEntry) return "it is longer than 254 bytes";
    if (has_control_character(entry)) return "it holds a control character";
    return nullptr;
}

AddressList::AddressList(string user, string list, unsigned scope)
    : user_(std::move(user)),
      list_(std::move(list)),
      scope_(scope),
      path_(path_of(user_, list_, scope_)) {}

std::vector<string> AddressList::lines() const {
    demand();
    using Stream = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;
    const Stream stream(std::fopen(path_.c_str(), "re"), std::fclose);
    if (!stream) throw system_failure(printable(path_));
    std::vector<string> lines;
    char line[kLineBuffer];
    while (std::fgets(line, sizeof line, stream.get()) != nullptr) lines.push_back(stripped(line));
    if (std::ferror(stream.get()) != 0) throw system_failure(printable(path_));
    return lines;
}

std::vector<string> AddressList::sorted() const {
    demand();
    mail_list_names names;
    if (mail_list_get_names(user_.c_str(), list_.c_str(), &names, 1, scope_) != 0) {
        throw system_failure(printable(path_));
    }
    const std::unique_ptr<mail_list_names, void (*)(mail_list_names*)> owner(&names,
                                                                             mail_list_free_names);
    return {names.names, names.names + names.count};
}

bool AddressList::contains(const string& entry) const {
    return mail_list_find(user_.c_str(), list_.c_str(), entry.c_str(), scope_) == 1;
}

bool AddressList::matches(const string& address) const {
    return mail_list_match(user_.c_str(), list_.c_str(), address.c_str(), scope_) == 1;
}

AddressList::Added AddressList::add(const string& entry) const {
    constexpr int kFull = -2;
    if (contains(entry)) return Added::present;
    end_last_line(entry);
    errno = 0;
    const int answer = mail_list_add_to(user_.c_str(), list_.c_str(), entry.c_str(), scope_);
    if (answer == kFull) return Added::full;
    if (answer != 0) throw list_failure(path_, errno);
    // The library reports success even if the write failed.
    if (!contains(entry)) throw Failure(kExitTryAgain, printable(path_) + " could not be written");
    return Added::added;
}

bool AddressList::remove(const string& entry) const {
    demand();
    const bool was_there = contains(entry);
    errno = 0;
    keeping_mode([&] {
        rewritten(mail_list_delete_from(user_.c_str(), list_.c_str(), entry.c_str(), scope_));
    });
    return was_there;
}

string AddressList::line(unsigned number) const {
    const std::vector<string> all = lines();
    if (number != 0 && number <= all.size()) return all[number - 1];
    throw Failure(kExitData, printable(path_) + " has " + std::to_string(all.size()) +
                                 " lines, no line " + std::to_string(number));
}

void AddressList::replace(unsigned line, string entry) const {
    this->line(line);
    errno = 0;
    keeping_mode([&] {
        rewritten(mail_list_modify_from(user_.c_str(), list_.c_str(), entry.data(), line, scope_));
    });
}

bool AddressList::exists() const {
    if (::access(path_.c_str(), F_OK) == 0) return true;
    if (errno == ENOENT || errno == ENOTDIR) return false;
    throw system_failure(printable(path_));
}

void AddressList::demand() const {
    if (!exists()) throw Failure(kExitNoInput, "there is no list " + printable(path_));
}

// A new entry would become part of an unterminated last line. Any rewrite terminates it: this one
// removes an entry that is not in the list.
void AddressList::end_last_line(const string& entry) const {
    if (!last_line_is_open(path_)) return;
    errno = 0;
    keeping_mode([&] {
        rewritten(mail_list_delete_from(user_.c_str(), list_.c_str(), entry.c_str(), scope_));
    });
}

// A rewrite replaces the list by a new file that only its owner can read; this restores the mode.
void AddressList::keeping_mode(const std::function<void()>& rewrite) const {
    struct stat before, after;
    const bool known = ::lstat(path_.c_str(), &before) == 0 && S_ISREG(before.st_mode);
    rewrite();
    const Fd list(known ? retry([&] {
        return ::open(path_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    })
                        : -1);
    constexpr mode_t kRights = 0777;
    if (!list || ::fstat(list.get(), &after) != 0 || after.st_mode == before.st_mode) return;
    if (::fchmod(list.get(), before.st_mode & kRights) != 0) throw system_failure(printable(path_));
}

void AddressList::rewritten(int answer) const {
    if (answer != 0) throw list_failure(path_, errno);
}

}  // namespace Tessaly::tool
