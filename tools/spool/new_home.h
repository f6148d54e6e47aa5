// Makes a missing home for its future owner.
#ifndef TSMAIL_TOOLS_SPOOL_NEW_HOME_H
#define TSMAIL_TOOLS_SPOOL_NEW_HOME_H

#include <tessaly/MailUserId.h>

#include <optional>
#include <string>

#include "tools/cli/session.h"
#include "tools/spool/owner.h"

namespace Tessaly::tool {

// The user and group of "USER" or "USER:GROUP", names or numbers. Without GROUP, the group is the
// user's own. A Failure with code kExitUsage for names that the system does not know.
Owner owner_named(const std::string& text);

// The owner whose rights a worker on the mailbox gets. Makes a missing home (mode 0700) and the
// missing directories above it first. The home's owner is `wanted`; without that, the owner of the
// domain's directory unless that is root; else the configured mail user, if there is one. Only root
// can make a home for another user.
//
// A Failure if the home cannot be made, or if it exists and does not belong to `wanted`. A process
// that is ended in the middle leaves at most an empty directory with a hidden name beside the
// homes.
Owner owner_of_made_mailbox(Session& session, const TSMailUserId& id,
                            const std::optional<Owner>& wanted);

// The directory of a domain. Makes it and those above it where missing, each as the owner of the
// directory that it is made in.
Place domain_of_new_home(Session& session, const TSMailUserId& id);

}  // namespace Tessaly::tool

#endif
