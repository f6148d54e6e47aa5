// Checks of folders and of their contents.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <optional>

#include "base/store_names.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/doctor/checks.h"
#include "tools/doctor/folders.h"
#include "tools/doctor/survey.h"
#include "tools/work/folder_list.h"
#include "tools/work/folder_lock.h"
#include "tools/work/mailbox_lock.h"
#include "tools/work/paths.h"
#include "tools/work/recount.h"
#include "tools/work/scan.h"

namespace Tessaly::tool {

namespace {

using std::string;
using std::string_view;

// ---- permissions

constexpr mode_t kOthers = 077, kOwner = 0700;

void change_mode(const string& path, mode_t mode) {
    if (::chmod(path.c_str(), mode) != 0) throw system_failure(printable(path));
}

void check_mode(const string& path, mode_t needed, mode_t forbidden,
                std::vector<Finding>& findings) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return;
    const mode_t mode = st.st_mode & 07777;
    const mode_t right = (mode | needed) & ~forbidden;
    if (mode == right) return;
    findings.push_back({path, fmt::format("the mode is {:04o}", mode),
                        fmt::format("sets the mode {:04o}", right),
                        [=] { change_mode(path, right); }});
}

std::vector<Finding> look_at_root_modes(const Patient& patient) {
    std::vector<Finding> findings;
    for (const string& path : {patient.id.mailpath(), patient.id.prefpath()}) {
        check_mode(path, kOwner, kOthers, findings);
    }
    return findings;
}

std::vector<Finding> look_at_folder_modes(const Patient& patient) {
    std::vector<Finding> findings;
    const FolderList list = list_folders(patient.id);
    for (const string& name : list.names) {
        const string path = patient.id.mailfolder(name);
        for (const char* part : {"", "/cur", "/new", "/tmp"}) {
            check_mode(path + part, kOwner, 0, findings);
        }
    }
    for (const auto& unread : list.unread) check_mode(unread.path, kOwner, 0, findings);
    return findings;
}

// ---- missing parts

// Whether the directory has a part of a folder, so that it was meant to be one.
bool is_meant_as_folder(const string& path, const Listing& listing) {
    constexpr std::array kSigns = {names::kCur, names::kNew, names::kTmp, names::kFolderSize};
    return listing.is_folder || std::any_of(kSigns.begin(), kSigns.end(), [&](string_view sign) {
               return ::access(in(path, sign).c_str(), F_OK) == 0;
           });
}

string missing_parts(const string& path) {
    string missing;
    for (const char* part : names::kSubDirs) {
        if (::access(in(path, part).c_str(), F_OK) == 0) continue;
        missing += (missing.empty() ? "" : ", ") + string(part);
    }
    return missing;
}

// The listing of a directory; nothing if the path is a link or not a directory.
std::optional<Listing> listing_of(const string& path) {
    const Fd fd(retry(
        [&] { return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
    if (!fd && is_no_directory(errno)) return std::nullopt;
    if (!fd) throw system_failure(printable(path));
    Listing listing = list_directory(fd.get());
    if (listing.error != 0) throw system_failure(printable(path), listing.error);
    return listing;
}

// The same; notes a directory that cannot be read.
std::optional<Listing> listing_or_note(const Patient& patient, const string& path) {
    try {
        return listing_of(path);
    } catch (const Failure& failure) {
        patient.cannot_look(failure);
        return std::nullopt;
    }
}

// Checks a directory and all below it. Whether it is or should be a folder, or contains one.
bool look_for_parts(const Patient& patient, const string& name, std::vector<Finding>& findings) {
    const string path = patient.id.mailfolder(name);
    const std::optional<Listing> listing = listing_or_note(patient, path);
    if (!listing) return false;
    bool wanted = is_meant_as_folder(path, *listing);
    const std::size_t place = findings.size();
    for (const string& below : listing->below) {
        wanted = look_for_parts(patient, in(name, below), findings) || wanted;
    }
    const string missing = missing_parts(path);
    if (!wanted || missing.empty()) return wanted;
    findings.insert(findings.begin() + static_cast<std::ptrdiff_t>(place),
                    {path, "no " + missing, "makes what is missing",
                     [=] { patient.maker.make_folder(patient.id, name); }});
    return true;
}

std::vector<Finding> look_at_parts(const Patient& patient) {
    std::vector<Finding> findings;
    const std::optional<Listing> listing = listing_of(patient.id.mailpath());
    if (!listing) return findings;
    for (const string& name : listing->below) look_for_parts(patient, name, findings);
    return findings;
}

// ---- leftovers in tmp

// The directory in which a leftover file of tmp belongs, or nullptr if it may be an incomplete
// message. A message with flags was in cur; a message of the size in its name is complete.
const char* place_of(const string& name, const struct stat& st) {
    const bool has_flags = name.find(":2,") != string::npos;
    const long long size = get_maildir_msg_len_from_name(name.c_str());
    if (size >= 0 && size != st.st_size) return nullptr;
    if (has_flags) return names::kCur.data();
    return size > 0 ? names::kNew.data() : nullptr;
}

// Moves the file under the folder's lock, as messages must not move during a count; then recounts.
void rescue(const TSMailUserId& id, const string& folder, const string& name, const char* place) {
    {
        const FolderLock lock = locked_folder(id, folder, LockKind::exclusive);
        const string path = id.mailfolder(folder);
        const string from = in(path + "/tmp", name), to = in(in(path, place), name);
        if (!rename_new(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str())) {
            throw system_failure(printable(from));
        }
    }
    recount(id);
}

Finding leftover(const TSMailUserId& id, const string& folder, const string& name,
                 const struct stat& st) {
    const auto hours = (std::time(nullptr) - st.st_mtime) / 3600;
    const char* place = place_of(name, st);
    Finding finding = {in(id.mailfolder(folder) + "/tmp", name), "", "", {}};
    if (place == nullptr) {
        finding.what = fmt::format("a file of {}, {} old, that may be a part of a message",
                                   size_text(static_cast<std::uint64_t>(st.st_size)),
                                   counted(static_cast<std::uint64_t>(hours), "hour"));
        return finding;
    }
    finding.what = fmt::format("a complete message, {} old",
                               counted(static_cast<std::uint64_t>(hours), "hour"));
    finding.repair = fmt::format("moves it to {} and recounts", place);
    finding.mend = [=] { rescue(id, folder, name, place); };
    return finding;
}

std::vector<Finding> look_at_leftovers(const Patient& patient) {
    std::vector<Finding> findings;
    look_at_each_folder(patient, [&](const string& folder, const string& path) {
        const string tmp = path + "/tmp";
        for (const string& name : names_in(tmp)) {
            struct stat st;
            if (::lstat(in(tmp, name).c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
            if (name.front() == '.' || std::time(nullptr) - st.st_mtime <= kLeftBehind) continue;
            findings.push_back(leftover(patient.id, folder, name, st));
        }
    });
    return findings;
}

// ---- names without sizes

// What the survey found in the folder, or `read`() if it did not come there.
template <class Part, class Read>
Part names_in_folder(const Patient& patient, const string& path, Part JudgedNames::*part,
                     const Read& read) {
    const auto& names = survey_of(patient).names;
    const auto found = names.find(path);
    return found != names.end() ? found->second.*part : read(path);
}

std::vector<Finding> look_at_names(const Patient& patient) {
    std::vector<Finding> findings;
    look_at_each_folder(patient, [&](const string& folder, const string& path) {
        const Untagged untagged =
            names_in_folder(patient, path, &JudgedNames::untagged, untagged_in);
        for (const string& message : untagged.stuck) {
            findings.push_back({message, "the name's size field holds no size", ""});
        }
        if (untagged.taggable == 0) return;
        findings.push_back(
            {path, counted(untagged.taggable, "message") + " without a size in the name",
             "puts the size into the name", [id = patient.id, folder] {
                 tag_folder(id, folder);
                 if (untagged_in(id.mailfolder(folder)).taggable == 0) return;
                 throw Failure(kExitCannotCreate, printable(folder) + ": some could not be tagged");
             }});
    });
    return findings;
}

// ---- names with wrong sizes

void correct_and_recount(const TSMailUserId& id, const string& folder) {
    const std::vector<NotRenamed> left = correct_sizes(id, folder);
    recount(id);
    if (left.empty()) return;
    throw system_failure(printable(left.front().path), left.front().error);
}

std::vector<Finding> look_at_size_fields(const Patient& patient) {
    std::vector<Finding> findings;
    look_at_each_folder(patient, [&](const string& folder, const string& path) {
        std::uint64_t mendable = 0;
        for (const WrongSize& message :
             names_in_folder(patient, path, &JudgedNames::wrong, wrong_sizes_in)) {
            if (!message.right_path.empty()) {
                ++mendable;
                continue;
            }
            findings.push_back(
                {message.path,
                 fmt::format("the name says {}, the file has {}", counted(message.named, "byte"),
                             counted(message.actual, "byte")),
                 ""});
        }
        if (mendable == 0) return;
        findings.push_back({path, counted(mendable, "message") + " with a wrong size in the name",
                            "puts the right size into the name and recounts",
                            [id = patient.id, folder] { correct_and_recount(id, folder); }});
    });
    return findings;
}

constexpr Check kFolderChecks[] = {
    {"root-permissions", "other users can look into the mailbox, or its owner cannot work in it",
     look_at_root_modes},
    {"folder-parts", "mail in an incomplete folder is not found, or cannot be delivered",
     look_at_parts},
    {"folder-permissions", "who has no access to a folder can neither read nor deliver mail",
     look_at_folder_modes},
    {"leftovers", "mail readers do not see what a delivery or another reader left in tmp",
     look_at_leftovers},
    {"untagged", "the size of such a message has to be asked for at each count", look_at_names},
    {"size-fields", "such a message counts with a size that is not its own", look_at_size_fields},
};

}  // namespace

std::span<const Check> folder_checks() { return kFolderChecks; }

}  // namespace Tessaly::tool
