// Which mailboxes there are.
#ifndef TSMAIL_TOOLS_SPOOL_MAILBOXES_H
#define TSMAIL_TOOLS_SPOOL_MAILBOXES_H

#include <tessaly/MailUserId.h>

#include <optional>
#include <string>
#include <vector>

namespace Tessaly::tool {

// The mailbox of a user that is there; a Failure if there is none.
TSMailUserId existing_mailbox(const std::string& address);

// Every mailbox of users (of one domain) below the usual place, in the order of their directories.
std::vector<TSMailUserId> all_mailboxes(const std::optional<std::string>& domain = {});

// The one mailbox of an address or all of them; a Failure unless just one of the two is wanted.
std::vector<TSMailUserId> chosen_mailboxes(const std::optional<std::string>& address, bool all);

}  // namespace Tessaly::tool

#endif
