// The size fields in messages' names: adds missing ones and corrects wrong ones.
#ifndef TSMAIL_TOOLS_WORK_TAG_H
#define TSMAIL_TOOLS_WORK_TAG_H

#include <tessaly/MailUserId.h>

#include <cstdint>
#include <string>
#include <vector>

namespace Tessaly::tool {

// The messages of a folder whose names have no size.
struct Untagged {
    std::uint64_t taggable = 0;
    // The paths of those whose names have a size field without a size, which tagging skips.
    std::vector<std::string> stuck;
    std::uint64_t all() const { return taggable + stuck.size(); }
};

// A Failure if the folder cannot be read.
Untagged untagged_in(const std::string& path);

struct Tagged {
    std::uint64_t tagged = 0;
    std::uint64_t left = 0;  // still without a field: no room in the name, or no permission
};

// Tags the messages in a folder's cur and new. That changes neither sizes nor records. It holds the
// folder's exclusive lock: a recount at the same time could see a message twice or not at all. A
// Failure if the folder does not exist or cannot be read.
Tagged tag_folder(const TSMailUserId& id, const std::string& folder);

// A message with a wrong size in its name: another program rewrote the file under the same name.
struct WrongSize {
    std::string path;
    std::uint64_t named;
    std::uint64_t actual;
    // The path with the file's size in the name, which is otherwise unchanged. "" if the field does
    // not have the library's format, or if the name would be too long.
    std::string right_path;
};

// What is wrong with the names of some messages.
struct JudgedNames {
    Untagged untagged;
    std::vector<WrongSize> wrong;

    // Judges a message: its directory's path, its name and the size of its file.
    void add(const std::string& directory, const char* name, std::uint64_t size);
    // Sorts by path.
    void sort();
};

// The messages of a folder with a wrong size, sorted by path. A Failure if one cannot be read.
std::vector<WrongSize> wrong_sizes_in(const std::string& path);

// Renames the messages that have a right path, under the lock of tag_folder(). Sizes change, so the
// caller has to recount. Returns the messages that could not be renamed, and why.
struct NotRenamed {
    std::string path;
    int error;
};
std::vector<NotRenamed> correct_sizes(const TSMailUserId& id, const std::string& folder);

}  // namespace Tessaly::tool

#endif
