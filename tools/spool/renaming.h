// Gives mailboxes other addresses: their partners' lists, their files, their homes.
//
// The homes are renamed last. A command that was interrupted finds the mailboxes where they were,
// and goes on when it is given again: every step before that leaves alone what is done.
#ifndef TSMAIL_TOOLS_SPOOL_RENAMING_H
#define TSMAIL_TOOLS_SPOOL_RENAMING_H

#include <tessaly/MailUserId.h>

#include <string>
#include <vector>

#include "tools/cli/session.h"
#include "tools/spool/walk.h"

namespace Tessaly::tool {

struct Renaming {
    TSMailUserId from, to;
};
using Renamings = std::vector<Renaming>;
// back: the homes have kept their names, and what was done is taken back.
enum class Way { there, back };

// Enters the new addresses into the lists of the mailboxes' partners. Partners in the domain
// `within` are left out. Returns the largest exit code.
int rename_in_partners(Session& session, const Renamings& all, const std::string& within,
                       Way way = Way::there);

// The bytes that the mailboxes hold as their owners' size files say.
using Holdings = std::vector<long long>;

// Gives the preference and list files their new names, and learns what the mailboxes hold. If
// `from` is a domain, the mailboxes' own lists get the domain `to` in its place first. Returns the
// largest exit code.
int rename_files(Session& session, const Renamings& all, Holdings& held,
                 const std::string& from = "", const std::string& to = "", Way way = Way::there);

// Renames the home. `from` and `to` are the directories of the domains. A Failure if the new name
// is taken, or if the directories belong to different users.
void rename_home(Session& session, const Renaming& mailbox, const Place& from, const Place& to);

// Renames all homes of a domain, the hidden ones too, within its directory.
void rename_homes(Session& session, const Place& directory, const std::string& from,
                  const std::string& to);
// Renames the directory of the domain within that of all homes. A Failure if the name is taken.
void rename_domain(Session& session, const Place& homes, const std::string& from,
                   const std::string& to);

}  // namespace Tessaly::tool

#endif
