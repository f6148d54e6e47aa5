// AsOwner - root works on a mailbox as the user who owns it.
#ifndef TSMAIL_TOOLS_SPOOL_IDENTITY_H
#define TSMAIL_TOOLS_SPOOL_IDENTITY_H

#include <sys/types.h>
#include <tessaly/MailUserId.h>

#include <vector>

#include "tools/cli/session.h"

namespace Tessaly::tool {

// While it lives the calling thread, and no other, has the effective user and group of the
// mailbox's owner, so that nothing in it (a link, say) leads to what its owner may not touch, and
// new files belong to them. Does nothing unless the thread is root and the owner is not. If the
// owner's identity cannot be taken, or would not reach the mailbox, the work goes on as root, with
// a warning that says why.
class AsOwner {
  public:
    AsOwner(const Session& session, const TSMailUserId& id);
    AsOwner(const AsOwner&) = delete;
    AsOwner& operator=(const AsOwner&) = delete;
    ~AsOwner();

  private:
    bool take(uid_t user, gid_t group);
    void give_back() noexcept;

    bool taken_ = false;
    gid_t group_;
    std::vector<gid_t> groups_;
};

}  // namespace Tessaly::tool

#endif
