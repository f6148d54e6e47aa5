// Making a home that is missing, for whoever it is to belong to.
#ifndef TSMAIL_TOOLS_SPOOL_NEW_HOME_H
#define TSMAIL_TOOLS_SPOOL_NEW_HOME_H

#include <tessaly/MailUserId.h>

#include <optional>
#include <string>

#include "tools/cli/session.h"
#include "tools/spool/owner.h"

namespace Tessaly::tool {

// The user and group of "USER" or "USER:GROUP", names or numbers. Without GROUP it is the user's
// own. A Failure with code kExitUsage for what the system does not know.
Owner owner_named(const std::string& text);

// Whose rights a worker on the mailbox gets. A home that is missing is made first, and the
// directories above it as well: the home (mode 0700) for `wanted`; without that for the owner of
// the domain's directory unless that is root; else for the configured mail user, if there is one.
// Only root can make a home for somebody else.
//
// A Failure if the home cannot be made, or is there and belongs to somebody else than `wanted`. A
// process that is ended in the middle leaves at most an empty directory with a hidden name beside
// the homes.
Owner owner_of_made_mailbox(Session& session, const TSMailUserId& id,
                            const std::optional<Owner>& wanted);

}  // namespace Tessaly::tool

#endif
