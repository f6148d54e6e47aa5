#include "tools/spool/hidden_home.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "tools/cli/address.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/spool/directory_job.h"
#include "tools/spool/mailbox_job.h"
#include "tools/work/hidden_name.h"

namespace Tessaly::tool {

namespace {

using std::string;
using std::string_view;

constexpr int kToRead = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
constexpr int kToMake = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY;
constexpr char kRecordEnd[] = ".partners";
constexpr std::size_t kLongestRecord = 1 << 20;

std::optional<HiddenHome> hidden_home_named(const Place& domain, const string& name) {
    const auto parts = hidden_name_in(name);
    if (!parts) return std::nullopt;
    try {
        TSMailUserId id = mailbox_of(parts->base);
        if (id.homepath() != domain.path + '/' + parts->base) return std::nullopt;
        return HiddenHome{std::move(id), name, parts->claimed};
    } catch (const Failure&) {
        return std::nullopt;
    }
}

string text_of(const PartnerLists& lists) {
    string text;
    for (const auto& [partner, list] : lists)
        text.append(list).append(" ").append(partner).append("\n");
    return text;
}

PartnerLists lists_in(const string& text) {
    PartnerLists lists;
    for (std::size_t begin = 0, end = 0; begin < text.size(); begin = end + 1) {
        end = std::min(text.find('\n', begin), text.size());
        const string line = text.substr(begin, end - begin);
        const auto blank = line.find(' ');
        if (blank == string::npos) continue;
        lists.emplace_back(line.substr(blank + 1), line.substr(0, blank));
    }
    return lists;
}

// False if the name is taken.
bool make_record(int domain, const string& record, const string& text, const string& path) {
    const Fd fd(retry([&] { return ::openat(domain, record.c_str(), kToMake, 0600); }));
    if (!fd && errno == EEXIST) return false;
    if (!fd) throw system_failure(printable(path));
    if (base::pwrite_all(fd.get(), text, 0) && ::fsync(fd.get()) == 0) return true;
    const int error = errno;
    ::unlinkat(domain, record.c_str(), 0);
    throw system_failure(printable(path), error);
}

bool exists(int domain, const HiddenHome& home) {
    struct stat st;
    return ::fstatat(domain, home.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 ||
           ::fstatat(domain, claimed(home).name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
}

}  // namespace

string HiddenHome::record() const { return unclaimed_name(name) + kRecordEnd; }

string name_of_home(const string& record) {
    const string_view end = kRecordEnd;
    return record.ends_with(end) ? record.substr(0, record.size() - end.size()) : record;
}

std::vector<HiddenHome> hidden_homes_in(const Place& domain) {
    std::vector<HiddenHome> homes;
    for (const string& name : names_in(domain)) {
        if (auto home = hidden_home_named(domain, name)) homes.push_back(std::move(*home));
    }
    return homes;
}

std::vector<HiddenHome> hidden_homes_of(const Choice& choice) {
    std::vector<HiddenHome> all;
    for (const Place& domain : domains_of(choice)) {
        try {
            for (HiddenHome& home : hidden_homes_in(domain)) {
                const bool wanted =
                    !choice.address ||
                    home.id.address(true) == mailbox_of(*choice.address).address(true);
                if (wanted) all.push_back(std::move(home));
            }
        } catch (const Failure&) {
            continue;
        }
    }
    return all;
}

HiddenHome claimed(const HiddenHome& home) {
    return home.claimed ? home : HiddenHome{home.id, claimed_name(home.name), true};
}

timespec hidden_since(const Place& domain, const HiddenHome& home) {
    const int fd = domain.fd.get();
    struct stat st;
    if (::fstatat(fd, home.record().c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) return st.st_mtim;
    if (::fstatat(fd, home.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) return st.st_ctim;
    return {0, 0};
}

bool is_older(const Place& domain, const HiddenHome& home, std::chrono::seconds age) {
    timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now);
    return home.claimed ||
           std::chrono::seconds(now.tv_sec - hidden_since(domain, home).tv_sec) > age;
}

void hide_home(int domain, const TSMailUserId& id, const PartnerLists& lists) {
    const string prefix = hidden_prefix(id.tilde_name()), text = text_of(lists);
    std::vector<HiddenHome> lost;
    for (unsigned number = 1;; ++number) {
        const HiddenHome home{id, fmt::format("{}{:x}", prefix, number), false};
        if (!make_record(domain, home.record(), text, home.path())) {
            if (!exists(domain, home)) lost.push_back(home);
            continue;
        }
        if (move_within(domain, id.tilde_name(), home.name)) break;
        const int error = errno;
        ::unlinkat(domain, home.record().c_str(), 0);
        if (error != EEXIST) throw system_failure(printable(id.homepath()), error);
    }
    // A command that was killed left these behind. Now that the home is hidden, nobody else needs
    // them, unless another command has hidden an earlier home of the same name meanwhile.
    for (const HiddenHome& home : lost) {
        if (!exists(domain, home)) ::unlinkat(domain, home.record().c_str(), 0);
    }
    flush_directory(domain, id.homepath());
}

PartnerLists recorded_lists(int domain, const HiddenHome& home) {
    const Fd fd(retry([&] { return ::openat(domain, home.record().c_str(), kToRead); }));
    struct stat st;
    if (!fd || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return {};
    string text(std::min<std::size_t>(static_cast<std::size_t>(st.st_size), kLongestRecord), '\0');
    const ssize_t n = base::pread_full(fd.get(), text.data(), text.size(), 0);
    if (n < 0) throw system_failure(printable(home.path()));
    text.resize(static_cast<std::size_t>(n));
    return lists_in(text);
}

void show_home(int domain, const HiddenHome& home) {
    ::unlinkat(domain, home.record().c_str(), 0);
    if (!move_within(domain, home.name, home.id.tilde_name())) {
        throw system_failure(printable(home.id.homepath()));
    }
    flush_directory(domain, home.id.homepath());
}

void claim_home(int domain, const HiddenHome& home) {
    if (home.claimed) return;
    if (!move_within(domain, home.name, claimed(home).name)) {
        throw system_failure(printable(home.path()));
    }
}

void remove_home(int domain, const HiddenHome& home) {
    ::unlinkat(domain, home.record().c_str(), 0);
    struct stat st;
    if (::fstatat(domain, home.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
        const int flags = S_ISDIR(st.st_mode) ? AT_REMOVEDIR : 0;
        if (::unlinkat(domain, home.name.c_str(), flags) == 0) return;
    }
    if (errno != ENOENT) throw system_failure(printable(home.path()));
}

}  // namespace Tessaly::tool
