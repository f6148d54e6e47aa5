// Uncounted - keeps a mailbox marked for a recount while a change of its messages is not yet in its
// size records.
#ifndef TSMAIL_TOOLS_WORK_UNCOUNTED_H
#define TSMAIL_TOOLS_WORK_UNCOUNTED_H

#include <tessaly/MailUserId.h>

#include <ctime>
#include <optional>
#include <string>

namespace Tessaly::tool {

// Marks the mailbox before its messages change. If the process is ended before counted(), the
// mailbox stays marked, so its sizes are right or marked at any moment. The caller holds the lock
// of a folder of the mailbox, so no recount runs meanwhile.
class Uncounted {
  public:
    // A Failure if the mailbox cannot be marked.
    explicit Uncounted(const TSMailUserId& id);
    Uncounted(const Uncounted&) = delete;
    Uncounted& operator=(const Uncounted&) = delete;

    // The records agree with the messages: removes the mark, unless the mailbox was marked before
    // or another process marked it meanwhile.
    void counted();

  private:
    bool make();
    bool renew() const;

    std::string path_;
    std::optional<timespec> ours_;  // the time of this object's own mark
};

}  // namespace Tessaly::tool

#endif
