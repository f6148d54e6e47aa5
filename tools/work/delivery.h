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

// Message names contain numbers from the C library's generators, which a program has to seed.
void seed_random();
// A queue identifier for a message that has none.
std::string own_queue_id();
// The answer for a mailbox over its quota that two options ask for; nothing without them.
std::optional<ExitCode> answer_over_quota(bool refuse, bool defer);

// How a message is to be delivered.
struct DeliveryPlan {
    TSMailUserId id;
    std::optional<std::string> folder;
    std::string queue_id;
    mode_t callers_umask;
    bool may_make_mailbox;
    bool may_make_folder;
    std::optional<ExitCode> over_quota;  // the answer for a mailbox over its quota
    // A message that may not survive a crash is taken back and is a Failure, not a warning.
    bool demand_flush = false;
};

struct Delivered {
    std::string folder;
    unsigned long long size;
};

// Delivers a message as its mailbox's owner. A failure is reported as the queue needs it, and the
// answer is nothing then.
std::optional<Delivered> deliver(const DeliveryPlan& plan, const Input& input,
                                 const SignalHold& signals, Report& report);

// The folder that a message would be delivered into, for a dry run. Makes nothing. As the mailbox's
// owner; a Failure as the queue needs it.
std::string planned_folder(const DeliveryPlan& plan);
// The same for a mailbox that does not exist and would be made.
std::string planned_folder_of_new_mailbox(const DeliveryPlan& plan);

// A folder to deliver into.
class Delivery {
  public:
    // If no folder may be made, Inbox replaces a missing one.
    Delivery(const DeliveryPlan& plan, std::string folder)
        : plan_(plan), id_(plan.id), folder_(std::move(folder)), maker_(plan.callers_umask) {}

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
    Delivered deliver(const Input& input, const SignalHold& signals, Report& report);

  private:
    struct Place {
        Fd folder, tmp;
    };
    class Draft;

    Place open_place();
    bool find_place(Place& place) const;
    bool lock_place(const Place& place, const SignalHold& signals, FolderLock& lock) const;
    void appear(Draft& draft, const FolderLock& lock, Report& report) const;
    bool flush(int fresh, const std::string& name, Report& report) const;
    void settle(const std::string& path, unsigned long long size, bool flushed,
                Report& report) const;

    const DeliveryPlan& plan_;
    TSMailUserId id_;
    std::string folder_;
    FolderMaker maker_;
};

}  // namespace Tessaly::tool

#endif
