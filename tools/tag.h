// Giving messages a size field in their names.
#ifndef TSMAIL_TOOLS_TAG_H
#define TSMAIL_TOOLS_TAG_H

#include <tessaly/MailUserId.h>

#include <cstdint>
#include <string>

namespace Tessaly::tool {

struct Tagged {
    std::uint64_t tagged = 0;
    std::uint64_t left = 0;  // without a field still: no room in the name, or no permission
};

// Tags the messages in a folder's cur and new. No size changes by that, so no record does. The
// folder's exclusive lock is held: a recount beside it would meet messages twice, or not at all. A
// Failure if there is no such folder or it cannot be read.
Tagged tag_folder(const TSMailUserId& id, const std::string& folder);

}  // namespace Tessaly::tool

#endif
