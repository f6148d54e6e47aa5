// Reads a folder: counts or lists its messages.
#ifndef TSMAIL_TOOLS_WORK_SCAN_H
#define TSMAIL_TOOLS_WORK_SCAN_H

#include <tessaly/MailUserId.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/work/size_file.h"

namespace Tessaly::tool {

struct FolderCount {
    std::uint64_t messages = 0;  // in cur and new
    std::uint64_t fresh = 0;     // those in new
    std::uint64_t bytes = 0;     // the size in the name, else of the file
    int error = 0;               // errno of the first error
};

// Counts the messages of a folder, named relative to the open directory `at` (AT_FDCWD: to the
// working directory). Messages are the files in cur and new whose names do not begin with '.'.
FolderCount count_folder(int at, const char* name);
// The same for a folder that is open.
FolderCount count_folder(int folder);

// The same in the form of a size file: numbers are limited to the largest signed one.
Totals total_of(const FolderCount& count);

// A message during a visit of its folder.
struct SeenMessage {
    int directory;  // open: cur or new
    const char* name;
    bool is_new;          // in new, else in cur
    bool has_size_field;  // in the name
    std::uint64_t bytes;  // as above
};
using MessageVisit = std::function<void(const SeenMessage&)>;
// Visits the messages of a folder, unordered, and leaves unreadable parts out. Returns 0, or the
// errno of such a part.
int visit_messages(const std::string& folder, const MessageVisit& visit);

// One message of a folder.
struct MessageRow {
    std::string name;
    bool is_new;          // in new, else in cur
    bool has_size_field;  // in the name
    std::uint64_t bytes;  // as above
};
// The messages of a folder, unordered. Unreadable parts are left out; `error` gets the errno.
std::vector<MessageRow> messages_of(const std::string& folder, int& error);

}  // namespace Tessaly::tool

#endif
