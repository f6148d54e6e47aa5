// Delivery - what a delivery agent does with a message.
#ifndef TSMAIL_TOOLS_WORK_DELIVERY_H
#define TSMAIL_TOOLS_WORK_DELIVERY_H

#include <tessaly/MailUserId.h>

#include <optional>
#include <string>
#include <utility>

#include "tools/cli/descriptors.h"
#include "tools/cli/input.h"
#include "tools/work/folder.h"
#include "tools/work/folder_lock.h"
#include "tools/work/report.h"
#include "tools/work/signals.h"

namespace Tessaly::tool {

// The folder that mail for the address goes to: `option` if given, else the tag, else Inbox. A tag
// comes from strangers, so one that is no folder name counts as none. If no folder is to be made, a
// missing one gives Inbox.
std::string choose_folder(const TSMailUserId& id, const std::optional<std::string>& option,
                          bool may_make);

// A folder to deliver into.
class Delivery {
  public:
    // If no folder is to be made, Inbox takes the place of one that is missing.
    Delivery(const TSMailUserId& id, std::string folder, const FolderMaker& maker, bool may_make)
        : id_(id), folder_(std::move(folder)), maker_(maker), may_make_(may_make) {}

    // Delivers what can be read from the input, in this order: open the folder, make what is
    // missing, write below tmp, flush to the disk, appear in new under a name that did not exist,
    // flush the directory, count in the records of folder and mailbox. The folder's shared lock is
    // held from before the message appears until it is counted: whoever counts messages under an
    // exclusive one counts it once. If the folder was taken away before it could be locked, the
    // message is written again into the one that is there then, or is made.
    //
    // A Failure means that nothing is left behind and nothing counted. Once the message stands in
    // new it is delivered: that is reported at once, the message as {"path", "folder", "size"} when
    // it is flushed, and what fails from then on as warnings. If a record could not be written the
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
