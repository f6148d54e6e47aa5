// Removes the messages of a folder that are older than a given age.
#ifndef TSMAIL_TOOLS_WORK_EXPIRY_H
#define TSMAIL_TOOLS_WORK_EXPIRY_H

#include <tessaly/MailUserId.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace Tessaly::tool {

// The time from which a message's age is counted.
// saved: the later of the time in its name and its file's change time, so that a message that was
//   just moved into the folder is new.
// received: the time of receipt in its name; without one the file's modification time.
enum class AgeBy { saved, received };

struct ExpiryRule {
    std::chrono::seconds older;  // a message of exactly this age stays
    AgeBy by = AgeBy::saved;
    bool flagged = false;  // whether flagged messages go as well
    bool dry_run = false;
};

struct Expired {
    std::uint64_t messages = 0;
    std::uint64_t bytes = 0;  // the size in the name, else of the file
    // False if a size record could not be corrected; the mailbox is then marked for a recount.
    bool counted = true;
    std::uint64_t left = 0;  // messages that could not be removed
    int error = 0;           // errno of the first of these
};

// Removes messages from the folder's cur and new and corrects the size records. While it works the
// mailbox is marked for a recount. Calls `looked_at` now and then with the number of messages that
// it has looked at. A Failure with kExitNoInput if there is no such folder; a Failure if the folder
// is a symbolic link or cannot be read.
Expired expire(const TSMailUserId& id, const std::string& folder, const ExpiryRule& rule,
               const std::function<void(std::size_t)>& looked_at);

}  // namespace Tessaly::tool

#endif
