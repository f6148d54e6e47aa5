// What in a home carries the address of its mailbox: the names of preference and list files, and
// the entries of the address lists.
#ifndef TSMAIL_TOOLS_WORK_OWN_NAMES_H
#define TSMAIL_TOOLS_WORK_OWN_NAMES_H

#include <tessaly/MailUserId.h>

#include <string>

#include "tools/work/address_list.h"

namespace Tessaly::tool {

// In the preference directory of `home`: gives the files that have the names of one address those
// of another. A Failure, with the rest unchanged, if a name is taken.
void rename_own_files(const TSMailUserId& home, const TSMailUserId& from, const TSMailUserId& to);

// Puts another address in the place of one, if the list has it. An address is never twice in the
// list after that. Nothing for a list that does not exist.
void replace_address(const AddressList& list, const std::string& from, const std::string& to);

// In the mailbox's own lists of partners: puts the domain `to` in the place of `from`.
void rename_domain_in_lists(const TSMailUserId& id, const std::string& from, const std::string& to);

}  // namespace Tessaly::tool

#endif
