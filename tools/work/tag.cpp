#include "tools/work/tag.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <optional>
#include <string_view>

#include "base/store_names.h"
#include "tools/cli/descriptors.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/work/folder.h"
#include "tools/work/folder_lock.h"
#include "tools/work/paths.h"
#include "tools/work/scan.h"

namespace Tessaly::tool {

namespace {

using std::string;
using std::string_view;

// Demands that all messages can be read.
void visit_all(const string& folder, const MessageVisit& visit) {
    if (const int error = visit_messages(folder, visit); error != 0) {
        throw system_failure(printable(folder), error);
    }
}

string directory_of(const string& folder, const SeenMessage& message) {
    return in(folder, (message.is_new ? names::kNew : names::kCur).data());
}

// Whether the name has a size field, with or without a size in it.
bool has_field(string_view name) {
    const auto begin = name.find(",#F");
    return begin != string_view::npos && name.find("#E", begin) != string_view::npos;
}

// The size of a message's file; nothing if the file was removed meanwhile.
std::optional<std::uint64_t> size_of_file(const string& folder, const SeenMessage& message) {
    struct stat st;
    if (::fstatat(message.directory, message.name, &st, AT_SYMLINK_NOFOLLOW) == 0) {
        return static_cast<std::uint64_t>(st.st_size);
    }
    if (errno == ENOENT) return std::nullopt;
    throw system_failure(printable(in(directory_of(folder, message), message.name)));
}

// The name with the number in its size field replaced; "" if there is no such name.
string with_size(const string& name, std::uint64_t size) {
    constexpr string_view kField = "#S#", kEnd = "#E";
    const auto field = name.rfind(kField);
    if (field == string::npos) return "";
    const auto number = field + kField.size();
    const auto end = name.find_first_not_of("0123456789", number);
    if (end == string::npos || !string_view(name).substr(end).starts_with(kEnd)) return "";
    string right = name.substr(0, number) + std::to_string(size) + name.substr(end);
    if (right.size() > NAME_MAX) return "";
    // The library may read another number, after a "#S" in a different form.
    const long long read = get_maildir_msg_len_from_name(right.c_str());
    return read == static_cast<long long>(size) ? right : "";
}

// Renames in one step: a message never has no name or two names.
std::vector<NotRenamed> rename_to_right(const std::vector<WrongSize>& messages) {
    std::vector<NotRenamed> left;
    for (const WrongSize& message : messages) {
        const char *from = message.path.c_str(), *to = message.right_path.c_str();
        if (*to == '\0' || rename_new(AT_FDCWD, from, AT_FDCWD, to)) continue;
        left.push_back({message.path, errno});
    }
    return left;
}

bool is_gone(const NotRenamed& message) { return message.error == ENOENT; }

}  // namespace

void JudgedNames::add(const string& directory, const char* name, std::uint64_t size) {
    const long long named = get_maildir_msg_len_from_name(name);
    if (named >= 0 && static_cast<std::uint64_t>(named) == size) return;
    if (named >= 0) {
        const string right = with_size(name, size);
        wrong.push_back({in(directory, name), static_cast<std::uint64_t>(named), size,
                         right.empty() ? "" : in(directory, right)});
    } else if (has_field(name)) {
        untagged.stuck.push_back(in(directory, name));
    } else {
        ++untagged.taggable;
    }
}

void JudgedNames::sort() {
    std::sort(untagged.stuck.begin(), untagged.stuck.end());
    std::sort(wrong.begin(), wrong.end(),
              [](const WrongSize& a, const WrongSize& b) { return a.path < b.path; });
}

Untagged untagged_in(const string& path) {
    JudgedNames judged;
    visit_all(path, [&](const SeenMessage& seen) {
        if (!seen.has_size_field) judged.add(directory_of(path, seen), seen.name, 0);
    });
    judged.sort();
    return std::move(judged.untagged);
}

Tagged tag_folder(const TSMailUserId& id, const string& folder) {
    const string path = existing_folder(id, folder);
    const FolderLock lock = locked_folder(id, folder, LockKind::exclusive);
    const std::uint64_t before = untagged_in(path).all();
    if (before == 0) return {};
    for (const string_view sub : {names::kCur, names::kNew})
        tsl_get_dir_size(path.c_str(), sub.data(), TSL_SCAN_TAG_FIRST);
    const std::uint64_t left = untagged_in(path).all();
    // A message that arrived meanwhile was not tagged.
    return {before - std::min(before, left), left};
}

std::vector<WrongSize> wrong_sizes_in(const string& path) {
    JudgedNames judged;
    visit_all(path, [&](const SeenMessage& seen) {
        if (!seen.has_size_field) return;
        if (const auto size = size_of_file(path, seen)) {
            judged.add(directory_of(path, seen), seen.name, *size);
        }
    });
    judged.sort();
    return std::move(judged.wrong);
}

std::vector<NotRenamed> correct_sizes(const TSMailUserId& id, const string& folder) {
    const string path = existing_folder(id, folder);
    const FolderLock lock = locked_folder(id, folder, LockKind::exclusive);
    // A mail reader does not lock and may have renamed a message meanwhile. The next round finds it
    // under its new name.
    for (;;) {
        std::vector<NotRenamed> left = rename_to_right(wrong_sizes_in(path));
        if (std::none_of(left.begin(), left.end(), is_gone)) return left;
    }
}

}  // namespace Tessaly::tool
