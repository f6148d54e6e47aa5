// Checks of everything below a home: links, other users' files, files of another address, folders
// that look like a system folder.
#include <fcntl.h>
#include <fmt/format.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "tools/cli/address.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/doctor/checks.h"
#include "tools/doctor/survey.h"
#include "tools/work/folder.h"
#include "tools/work/folder_list.h"
#include "tools/work/message_change.h"
#include "tools/work/paths.h"
#include "tools/work/removal.h"
#include "tools/work/scan.h"

namespace Tessaly::tool {

namespace {

using std::string;

// ---- symbolic links

std::vector<Finding> look_at_links(const Patient& patient) {
    std::vector<Finding> findings;
    for (const string& path : survey_of(patient).links) {
        findings.push_back({in(patient.id.homepath(), path), "a symbolic link", ""});
    }
    return findings;
}

// ---- owners

Finding stranger(const string& home, const Stranger& found, bool can_give) {
    Finding finding = {in(home, found.path), fmt::format("belongs to user {}", found.owner), ""};
    if (!can_give || !found.is_single_file) return finding;
    finding.repair = "gives it to the mailbox's owner";
    finding.give = found.path;
    return finding;
}

std::vector<Finding> look_at_owners(const Patient& patient) {
    std::vector<Finding> findings;
    for (const Stranger& found : survey_of(patient).strangers) {
        findings.push_back(stranger(patient.id.homepath(), found, patient.can_give));
    }
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
