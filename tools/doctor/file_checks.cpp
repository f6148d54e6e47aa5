// Checks of a user's preferences, lists and flags.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <tessaly/maillist.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <map>

#include "base/number.h"
#include "base/store_names.h"
#include "tools/cli/address.h"
#include "tools/cli/descriptors.h"
#include "tools/cli/failure.h"
#include "tools/cli/input.h"
#include "tools/cli/text.h"
#include "tools/doctor/checks.h"
#include "tools/work/paths.h"
#include "tools/work/preferences.h"

namespace Tessaly::tool {

namespace {

using std::string;
using std::string_view;

// The lines of a regular file; empty if there is no such file.
std::vector<string> lines_of(const string& path) {
    std::vector<string> lines;
    struct stat st;
    if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return lines;
    const Input input = open_input(path);
    LineReader reader(input);
    while (reader.next()) lines.push_back(reader.line());
    return lines;
}

void remove_file(const string& path) {
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) throw system_failure(printable(path));
}

// ---- preferences

// The key of a line, "" for a line without a key.
string key_of(string_view line) {
    const auto end = line.find_first_of(" \t=");
    if (end == string_view::npos || line.find('=') == string_view::npos) return "";
    return string(line.substr(0, end));
}

bool is_preference(const string& key) {
    const auto all = all_preferences();
    return std::any_of(all.begin(), all.end(),
                       [&](const pref_property& property) { return key == property.name; });
}

void store_again(const TSMailUserId& id) {
    const PreferencesLock lock(id);
    Preferences::of(id).store(id);
}

std::vector<Finding> look_at_preferences(const Patient& patient) {
    const string path = patient.id.fname(MUF_PREF_FILE);
    std::map<string, int> times;
    std::vector<Finding> findings;
    for (const string& line : lines_of(path)) {
        if (const string key = key_of(line); !key.empty()) ++times[key];
    }
    bool any_unknown = false;
    for (const auto& [key, count] : times) {
        if (is_preference(key)) continue;
        any_unknown = true;
        findings.push_back({path, fmt::format("the key \"{}\" is unknown", printable(key)), ""});
    }
    for (const auto& [key, count] : times) {
        if (count == 1 || !is_preference(key)) continue;
        Finding finding = {path, fmt::format("the key \"{}\" is there {} times", key, count), ""};
        // A rewrite would lose the unknown keys.
        if (!any_unknown) {
            finding.repair = "writes the file anew, with the last one's value";
            finding.mend = [id = patient.id] { store_again(id); };
        }
        findings.push_back(finding);
    }
    return findings;
}

// ---- lists

constexpr std::size_t kLineRoom = 254;  // bytes of a line of a list, without its line end

bool is_list(const TSMailUserId& id, const string& name) {
    const string prefix = id.tilde_name() + '.';
    return name.starts_with(prefix) && name.substr(prefix.size()) != names::kPreferences;
}

std::vector<Finding> look_at_list_files(const Patient& patient) {
    std::vector<Finding> findings;
    const string directory = patient.id.prefpath();
    for (const string& name : names_in(directory)) {
        const string path = in(directory, name);
        struct stat st;
        const bool is_temporary = name.starts_with('.' + patient.id.tilde_name() + '.') &&
                                  name.ends_with(names::kListTemporary);
        if (!is_temporary || ::lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
        if (std::time(nullptr) - st.st_mtime <= kLeftBehind) continue;
        findings.push_back({path, "a rewrite of a list that was not finished", "removes it",
                            [path] { remove_file(path); }});
    }
    return findings;
}

std::vector<Finding> look_at_list_lines(const Patient& patient) {
    std::vector<Finding> findings;
    const string directory = patient.id.prefpath();
    for (const string& name : names_in(directory)) {
        if (!is_list(patient.id, name)) continue;
        const string path = in(directory, name);
        int number = 0;
        for (const string& line : lines_of(path)) {
            ++number;
            if (line.size() <= kLineRoom) continue;
            findings.push_back(
                {path, fmt::format("line {} is longer than {} bytes", number, kLineRoom), ""});
        }
    }
    return findings;
}

// ---- partners

// Whether the mailbox exists. A home that this mailbox's owner may not enter counts as existing.
bool is_somebody(const string& address) {
    try {
        return mailbox_exists(mailbox_of(address));
    } catch (const Failure& failure) {
        if (failure.error() == EACCES) return true;
        if (failure.code() != kExitData) throw;
        return false;
    }
}

std::vector<Finding> look_at_partners(const Patient& patient) {
    std::vector<Finding> findings;
    const string user = patient.id.address(true);
    for (const string_view list : {names::kPrimaryAddresses, names::kSecondaryAddresses}) {
        const string path =
            in(patient.id.prefpath(), patient.id.tilde_name()).append(".").append(list);
        // Reads the file itself, because the library's readers make a lock file.
        for (const string& name : lines_of(path)) {
            if (name.empty() || is_somebody(name)) continue;
            findings.push_back({path, fmt::format("there is no mailbox {}", printable(name)),
                                "takes the address out of the list", [=] {
                                    if (mail_list_delete_from(user.c_str(), list.data(),
                                                              name.c_str(), MAIL_LIST_USER) < 0) {
                                        throw Failure(kExitIo,
                                                      printable(path) + " could not be rewritten");
                                    }
                                }});
        }
    }
    return findings;
}

// ---- flags

void make_empty(const string& path) {
    const Fd fd(retry([&] { return ::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC); }));
    if (!fd) throw system_failure(printable(path));
}

std::vector<Finding> look_at_flags(const Patient& patient) {
    std::vector<Finding> findings;
    for (const int kind : {MUF_QUOTA_WARNING_FLAG, MUF_QUOTA_EXCEEDED_FLAG}) {
        const string path = patient.id.fname(kind);
        struct stat st;
        if (::lstat(path.c_str(), &st) != 0) continue;
        if (!S_ISREG(st.st_mode)) {
            findings.push_back({path, "is not a file", ""});
            continue;
        }
        const std::vector<string> lines = lines_of(path);
        if (lines.empty() || (lines.size() == 1 && base::whole_number<int>(lines.front())))
            continue;
        findings.push_back({path, "holds no number", "empties it: set, with the number 0",
                            [path] { make_empty(path); }});
    }
    return findings;
}

// ---- the stamp of notices

// Allows for a difference between the clocks of several machines.
constexpr std::time_t kAhead = std::time_t{60} * 60;

void make_fresh(const string& path) {
    if (::utimensat(AT_FDCWD, path.c_str(), nullptr, AT_SYMLINK_NOFOLLOW) == 0) return;
    throw system_failure(printable(path));
}

std::vector<Finding> look_at_stamp(const Patient& patient) {
    const string path = patient.id.fname(MUF_ALERT_NOTIFICATION);
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return {};
    if (st.st_mtime <= std::time(nullptr) + kAhead) return {};
    return {{path, "the time of the last notice is in the future",
             "sets it to now: the next notice is due in a day", [path] { make_fresh(path); }}};
}

constexpr Check kFileChecks[] = {
    {"preferences", "of a doubled key the last one counts, and an unknown one does nothing",
     look_at_preferences},
    {"list-leftovers", "it takes room, and the next rewrite of that list may fail",
     look_at_list_files},
    {"list-lines", "a longer line than 254 bytes is read as several entries", look_at_list_lines},
    {"partners", "what is sent to such a partner goes nowhere", look_at_partners},
    {"flags", "a quota flag that cannot be read says nothing of the quota", look_at_flags},
    {"notice-stamp", "until that time the user gets no notice about the quota", look_at_stamp},
};

}  // namespace

std::span<const Check> file_checks() { return kFileChecks; }

}  // namespace Tessaly::tool
