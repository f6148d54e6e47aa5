#include "tools/work/folder_list.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <string_view>

#include "base/dir_reader.h"
#include "base/store_names.h"
#include "maildir/folders.h"
#include "tools/cli/descriptors.h"

namespace Tessaly::tool {

namespace {

using std::string;
using std::string_view;

constexpr unsigned kParts = std::size(names::kSubDirs);
constexpr int kToRead = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

// The parts of a folder that were found.
struct Seen {
    bool marker = false, record = false;
    unsigned parts = 0;  // a bit for each of cur, new and tmp

    void take(string_view name) {
        marker = marker || name == names::kFolderMarker;
        record = record || name == names::kFolderSize;
        for (unsigned i = 0; i < kParts; ++i) {
            if (name == names::kSubDirs[i]) parts |= 1U << i;
        }
    }
    bool is_folder() const { return marker || parts == (1U << kParts) - 1; }
};

}  // namespace

Listing list_directory(int fd) {
    Listing listing;
    Seen seen;
    base::DirReader reader(fd);
    while (const dirent64* entry = reader.next_real()) {
        seen.take(entry->d_name);
        if (!maildir::may_be_folder(*entry) || tsm_is_deleted_user_path(entry->d_name) != 0)
            continue;
        listing.below.emplace_back(entry->d_name);
    }
    // A directory that has been removed meanwhile holds nothing.
    if (reader.failed() && errno != ENOENT) listing.error = errno;
    listing.has_record = seen.record;
    listing.is_folder = seen.is_folder();
    std::sort(listing.below.begin(), listing.below.end());
    return listing;
}

void FolderQueue::add_below(const string& folder, const Listing& listing) {
    const string prefix = folder.empty() ? "" : folder + '/';
    for (auto name = listing.below.rbegin(); name != listing.below.rend(); ++name) {
        names_.push_back(prefix + *name);
    }
}

string FolderQueue::take() {
    string name = std::move(names_.back());
    names_.pop_back();
    return name;
}

bool is_no_directory(int error) { return error == ENOENT || error == ENOTDIR || error == ELOOP; }

FolderList list_folders(const TSMailUserId& id) {
    FolderList list;
    std::vector<Identity> met;
    const auto look = [&](const string& path) {
        const Fd fd(retry([&] { return ::open(path.c_str(), kToRead); }));
        if (!fd && !is_no_directory(errno)) list.unread.push_back({path, errno});
        if (!fd) return Listing();
        const Identity identity = identity_of(fd.get());
        if (std::find(met.begin(), met.end(), identity) != met.end()) return Listing();
        met.push_back(identity);
        Listing listing = list_directory(fd.get());
        if (listing.error != 0) list.unread.push_back({path, listing.error});
        return listing;
    };
    for (FolderQueue queue(look(id.mailpath())); !queue.empty();) {
        const string name = queue.take();
        const Listing listing = look(id.mailfolder(name));
        if (!listing.is_folder) continue;
        list.names.push_back(name);
        queue.add_below(name, listing);
    }
    return list;
}

}  // namespace Tessaly::tool
