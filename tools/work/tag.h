// The size fields in messages' names: giving one, and the right one.
#ifndef TSMAIL_TOOLS_WORK_TAG_H
#define TSMAIL_TOOLS_WORK_TAG_H

#include <tessaly/MailUserId.h>

#include <cstdint>
#include <string>
#include <vector>

namespace Tessaly::tool {

// The messages of a folder whose names tell no size.
struct Untagged {
    std::uint64_t taggable = 0;
    // The paths of those whose names have a field without a size in it, which tagging leaves alone.
    std::vector<std::string> stuck;
    std::uint64_t all() const { return taggable + stuck.size(); }
};

// A Failure if the folder cannot be read.
Untagged untagged_in(const std::string& path);

struct Tagged {
    std::uint64_t tagged = 0;
    std::uint64_t left = 0;  // without a field still: no room in the name, or no permission
};

// Tags the messages in a folder's cur and new. No size changes by that, so no record does. The
// folder's exclusive lock is held: a recount beside it would meet messages twice, or not at all. A
// Failure if there is no such folder or it cannot be read.
Tagged tag_folder(const TSMailUserId& id, const std::string& folder);

// A message whose name says another size than its file has: somebody wrote it anew under its name.
struct WrongSize {
    std::string path;
    std::uint64_t named;
    std::uint64_t actual;
    // The path with the size that the file has, and all else in the name as it is. "" if the field
    // is not written as the library writes it, or the name would be too long.
    std::string right_path;
};

// The messages of a folder of which that is so, by their paths. A Failure if one cannot be looked
// at.
std::vector<WrongSize> wrong_sizes_in(const std::string& path);

// Renames those that have a right path. Locks as above; sizes change, so the records have to be
// counted anew. What could not be renamed, and why.
struct NotRenamed {
    std::string path;
    int error;
};
std::vector<NotRenamed> correct_sizes(const TSMailUserId& id, const std::string& folder);

}  // namespace Tessaly::tool

#endif
