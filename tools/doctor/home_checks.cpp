// Checks of everything below a home: links, other users' files, files of another address, folders
// that look like a system folder.
#include <fcntl.h>
#include <fmt/format.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "base/dir_reader.h"
#include "tools/cli/address.h"
#include "tools/cli/descriptors.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/doctor/checks.h"
#include "tools/work/folder.h"
#include "tools/work/folder_list.h"
#include "tools/work/message_change.h"
#include "tools/work/paths.h"
#include "tools/work/removal.h"
#include "tools/work/scan.h"

namespace Tessaly::tool {

namespace {

using std::string;

// Visits every entry below a home, one directory at a time. Follows no link, and says which
// directories it cannot read.
class HomeWalk {
  public:
    // An entry, and the open directory that contains it, with its path relative to the home.
    struct Seen {
        int directory;
        const string& below;
        const dirent64& entry;
        string path() const { return below == "." ? entry.d_name : in(below, entry.d_name); }
        // The status of the entry itself, or nothing if it is gone.
        std::optional<struct stat> status() const {
            struct stat st;
            if (::fstatat(directory, entry.d_name, &st, AT_SYMLINK_NOFOLLOW) != 0)
                return std::nullopt;
            return st;
        }
        bool is(unsigned char type) const {
            if (entry.d_type != DT_UNKNOWN) return entry.d_type == type;
            const auto st = status();
            return st && IFTODT(st->st_mode) == type;
        }
    };
    using Visit = std::function<void(const Seen&)>;

    HomeWalk(const Patient& patient, Visit visit)
        : patient_(patient), top_(patient.id.homepath()), visit_(std::move(visit)) {}

    void run() {
        home_.reset(
            retry([&] { return ::open(top_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
        if (!home_) throw system_failure(printable(top_));
        for (left_.emplace_back("."); !left_.empty();) {
            const string directory = std::move(left_.back());
            left_.pop_back();
            read(directory);
        }
    }

  private:
    void read(const string& directory) {
        const Fd fd(retry([&] {
            return ::openat(home_.get(), directory.c_str(),
                            O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        }));
        if (!fd && errno == ENOENT) return;
        if (!fd) return cannot_read(directory);
        base::DirReader reader(fd.get());
        while (const dirent64* entry = reader.next_real()) take(fd.get(), directory, *entry);
        if (reader.failed()) cannot_read(directory);
    }

    void take(int fd, const string& directory, const dirent64& entry) {
        const Seen seen = {fd, directory, entry};
        visit_(seen);
        if (seen.is(DT_DIR)) left_.push_back(seen.path());
    }

    void cannot_read(const string& directory) {
        patient_.cannot_look(system_failure(printable(in(top_, directory))));
    }

    const Patient& patient_;
    const string top_;
    const Visit visit_;
    Fd home_;
    std::vector<string> left_;
};

// ---- symbolic links

std::vector<Finding> look_at_links(const Patient& patient) {
    std::vector<Finding> findings;
    const string home = patient.id.homepath();
    HomeWalk(patient, [&](const HomeWalk::Seen& seen) {
        if (seen.is(DT_LNK)) findings.push_back({in(home, seen.path()), "a symbolic link", ""});
    }).run();
    return findings;
}

// ---- owners

Finding stranger(const string& home, const string& path, const struct stat& st, bool can_give) {
    Finding finding = {in(home, path), fmt::format("belongs to user {}", st.st_uid), ""};
    if (!can_give || !S_ISREG(st.st_mode) || st.st_nlink != 1) return finding;
    finding.repair = "gives it to the mailbox's owner";
    finding.give = path;
    return finding;
}

std::vector<Finding> look_at_owners(const Patient& patient) {
    std::vector<Finding> findings;
    const string home = patient.id.homepath();
    struct stat top;
    if (::stat(home.c_str(), &top) != 0) throw system_failure(printable(home));
    HomeWalk(patient, [&](const HomeWalk::Seen& seen) {
        const auto st = seen.status();
        if (!st || st->st_uid == top.st_uid) return;
        findings.push_back(stranger(home, seen.path(), *st, patient.can_give));
    }).run();
    return findings;
}

// ---- files of another address

// The part of a preference or list file's name that names the mailbox; "" if there is none.
// "ann~site.test" of "ann~site.test.whitelist".
string mailbox_part(const string& name) {
    const auto dot = name.rfind('.');
    if (dot == string::npos || name.front() == '.') return "";
    const string part = name.substr(0, dot);
    const auto tilde = part.find('~');
    if (tilde == string::npos) return "";
    try {
        const TSMailUserId id = mailbox_of(part.substr(0, tilde) + '@' + part.substr(tilde + 1));
        return id.tilde_name() == part ? part : "";
    } catch (const Failure&) {
        return "";
    }
}

Finding misnamed(const string& directory, const string& name, const string& right) {
    const string path = in(directory, name), target = in(directory, right);
    Finding finding = {path, "is the file of another mailbox", ""};
    struct stat st;
    if (::lstat(target.c_str(), &st) == 0) {
        finding.what += fmt::format(", beside {}", printable(right));
        return finding;
    }
    finding.repair = "renames it to " + printable(right);
    finding.mend = [path, target] {
        if (!rename_new(AT_FDCWD, path.c_str(), AT_FDCWD, target.c_str())) {
            throw system_failure(printable(path));
        }
    };
    return finding;
}

std::vector<Finding> look_at_addresses(const Patient& patient) {
    std::vector<Finding> findings;
    const string directory = patient.id.prefpath(), own = patient.id.tilde_name();
    for (const string& name : names_in(directory)) {
        const string part = mailbox_part(name);
        if (part.empty() || part == own) continue;
        findings.push_back(misnamed(directory, name, own + name.substr(part.size())));
    }
    return findings;
}

// ---- twins of system folders

// The system folder whose name differs from this one in letter case alone; "" if there is none.
string system_twin(const string& name) {
    for (const string& folder : system_folders()) {
        if (name != folder && ::strcasecmp(name.c_str(), folder.c_str()) == 0) return folder;
    }
    return "";
}

void move_all(const TSMailUserId& id, const string& from, const string& to) {
    int error = 0;
    std::vector<string> names;
    for (MessageRow& row : messages_of(id.mailfolder(from), error)) {
        names.push_back(std::move(row.name));
    }
    if (error != 0) throw system_failure(printable(id.mailfolder(from)), error);
    const SignalHold signals;
    move_messages(id, from, to, names, {false, signals, [](const MessageChanges& changes) {
                                            if (changes.failed.empty()) return;
                                            throw Failure(changes.failed.front());
                                        }});
}

// Moves the messages of the twin and of each folder below it. The emptied twin is scheduled for
// deletion and not deleted, so that nothing is lost that came meanwhile.
void merge(const Patient& patient, const string& twin, const string& folder) {
    for (const string& name : list_folders(patient.id).names) {
        if (name != twin && !name.starts_with(twin + '/')) continue;
        const string target = folder + name.substr(twin.size());
        patient.maker.make_folder(patient.id, target);
        move_all(patient.id, name, target);
    }
    schedule_folder(patient.id, twin);
}

std::vector<Finding> look_at_twins(const Patient& patient) {
    std::vector<Finding> findings;
    for (const string& name : list_folders(patient.id).names) {
        const string folder = system_twin(name);
        if (folder.empty()) continue;
        findings.push_back({patient.id.mailfolder(name), "looks like the folder " + folder,
                            "moves its messages to " + folder + " and schedules it for deletion",
                            [=] { merge(patient, name, folder); }});
    }
    return findings;
}

constexpr Check kHomeChecks[] = {
    {"links", "what lies behind a link may be another user's, and no size counts it",
     look_at_links},
    {"owners", "the mailbox's owner may be unable to read or to remove it", look_at_owners},
    {"addresses", "a file under another mailbox's name is never read", look_at_addresses},
    {"twins", "mail in it is missed: many programs take it for the system folder", look_at_twins},
};

}  // namespace

std::span<const Check> home_checks() { return kHomeChecks; }

}  // namespace Tessaly::tool
