// Moves messages to another folder, and changes their flags.
#ifndef TSMAIL_TOOLS_WORK_MESSAGE_CHANGE_H
#define TSMAIL_TOOLS_WORK_MESSAGE_CHANGE_H

#include <tessaly/MailUserId.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/cli/failure.h"
#include "tools/work/signals.h"

namespace Tessaly::tool {

// A message before and after a change.
struct MessageChange {
    std::string from, to;  // paths; equal if nothing is to be done
    std::uint64_t bytes = 0;
};

// What came of a group of messages. `counted` is false if a size record could not be corrected; the
// mailbox is then marked for a recount.
struct MessageChanges {
    std::vector<MessageChange> done;
    std::vector<Failure> failed;
    bool counted = true;
};

struct ChangeOptions {
    bool dry_run;
    const SignalHold& signals;
    std::function<void(const MessageChanges&)> take;  // gets the result of each group
};

// Moves the messages with these names from one folder to the other, where they keep their names and
// their place in cur or new, and corrects the records of both folders. The mailbox's own total does
// not change. A message is at each moment in one of the two folders. Works on groups of messages
// and hands out the result of each group; a signal ends the work between two groups. With `dry_run`
// nothing is changed.
//
// A Failure if a folder does not exist. A message that cannot be moved does not prevent the others.
void move_messages(const TSMailUserId& id, const std::string& from, const std::string& to,
                   const std::vector<std::string>& names, const ChangeOptions& options);

// Adds flags to the messages and takes flags away. A message whose flags change goes to cur, as
// only there a name carries flags. The rest is as above.
struct FlagChange {
    std::string added, removed;
};
void flag_messages(const TSMailUserId& id, const std::string& folder, const FlagChange& change,
                   const std::vector<std::string>& names, const ChangeOptions& options);

}  // namespace Tessaly::tool

#endif
