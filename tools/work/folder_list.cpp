#include "tools/work/folder_list.h"

#include <dirent.h>
#include <fcntl.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>

#include "tools/cli/descriptors.h"

namespace Tessaly::tool {

namespace {

using std::string;

constexpr std::array<const char*, 3> kParts = {"cur", "new", "tmp"};
constexpr int kToRead = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

// What of a folder is there.
struct Seen {
    bool marker = false, record = false;
    unsigned parts = 0;  // a bit for each of kParts

    void take(const char* name) {
        marker = marker || std::string_view(name) == ".maildirfolder";
        record = record || std::string_view(name) == ".ts_folder_size";
        for (unsigned i = 0; i < kParts.size(); ++i) {
            if (std::string_view(name) == kParts[i]) parts |= 1U << i;
        }
    }
    bool is_folder() const { return marker || parts == (1U << kParts.size()) - 1; }
};

bool may_be_folder(const dirent64& entry) {
    const char* name = entry.d_name;
    if (entry.d_type != DT_DIR && entry.d_type != DT_LNK && entry.d_type != DT_UNKNOWN) {
        return false;
    }
    if (std::string_view(name) == "." || std::string_view(name) == "..") return false;
    if (tsm_is_deleted_user_path(name) != 0) return false;
    return std::none_of(kParts.begin(), kParts.end(),
                        [name](const char* part) { return ::strcasecmp(name, part) == 0; });
}

}  // namespace

Listing list_directory(int fd) {
    Listing listing;
    Seen seen;
    alignas(dirent64) char piece[32768];
    for (;;) {
        const ssize_t n = retry([&] { return ::getdents64(fd, piece, sizeof piece); });
        if (n < 0) listing.error = errno;
        if (n <= 0) break;
        for (const char *at = piece, *end = piece + n; at < end;) {
            const auto& entry = *reinterpret_cast<const dirent64*>(at);
            at += entry.d_reclen;
            seen.take(entry.d_name);
            if (may_be_folder(entry)) listing.below.emplace_back(entry.d_name);
        }
    }
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
