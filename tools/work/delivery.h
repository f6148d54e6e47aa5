// Delivery - what a delivery agent does with a message.
#ifndef TSMAIL_TOOLS_WORK_DELIVERY_H
#define TSMAIL_TOOLS_WORK_DELIVERY_H

#include <tessaly/MailUserId.h>

#include <optional>
#include <string>
#include <utility>

#include "tools/cli/descriptors.h"
#include "tools/cli/failure.h"
#include "tools/cli/input.h"
#include "tools/work/folder.h"
#include "tools/work/folder_lock.h"
#include "tools/work/report.h"
#include "tools/work/signals.h"

namespace Tessaly::tool {

// The folder that mail for the address goes to: `option` if given, else the tag, else Inbox.
// Strangers choose the tag, so a tag that is not a folder name is ignored, and one that differs
// from a system folder in letter case alone stands for that folder. If no folder may be made, Inbox
// replaces a missing one.
std::string choose_folder(const TSMailUserId& id, const std::optional<std::string>& option,
                          bool may_make);

// Demands that the mailbox is not over its quota: a Failure with this code and the matching
// enhanced status if its exceeded flag exists. kExitTryAgain asks the sender for another try, any
// other code means a final answer.
void demand_room(const TSMailUserId& id, ExitCode code);

// The failure of a delivery into the directory, with what an administrator needs: where it
// happened, and if something was not permitted, who works there and whose the directory is.
Failure explained(const Failure& failure, const std::string& directory);

// A folder to deliver into.
class Delivery {
  public:
    // If no folder may be made, Inbox replaces a missing one.
    Delivery(const TSMailUserId& id, std::string folder, const FolderMaker& maker, bool may_make)
        : id_(id), folder_(std::move(folder)), maker_(maker), may_make_(may_make) {}

    // Delivers the input in this order: open the folder, make what is missing, write below tmp,
    // flush to the disk, appear in new under a fresh name, flush the directory, count in the
    // records of folder and mailbox. It holds the folder's shared lock from before the message
    // appears until it is counted, so a recount under the exclusive lock counts the message once.
    // If the folder was removed before it could be locked, the message is written again into the
    // folder that exists then or is made.
    //
    // A Failure means that nothing is left behind and nothing was counted. Once the message is in
    // new, it is delivered. That is reported at once, and the message as {"path", "folder", "size"}
    // when it is flushed; later errors are only warnings. If a record could not be written, the
    // mailbox is marked for a recount.
    void deliver(const Input& input, const std::string& queue_id, const SignalHold& signals,
                 Report& report);

  private:
    struct Place {
        Fd folder, tmp;
    };
    class Draft;

    Place open_place();
    bool find_place(Place& place) const;
    bool lock_place(const Place& place, const SignalHold& signals, FolderLock& lock) const;
    void appear(Draft& draft, const FolderLock& lock, Report& report) const;
    void settle(int fresh, const std::string& path, unsigned long long size, Report& report) const;

    TSMailUserId id_;
    std::string folder_;
    FolderMaker maker_;
    bool may_make_;
};

}  // namespace Tessaly::tool

#endif
