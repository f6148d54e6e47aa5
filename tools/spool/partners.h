// Partners: mailboxes whose address lists name each other.
//
// Addresses of one person come in pairs of lists: each mailbox names the other one in the opposite
// list. Every list is read and changed with the rights of the owner of its mailbox.
#ifndef TSMAIL_TOOLS_SPOOL_PARTNERS_H
#define TSMAIL_TOOLS_SPOOL_PARTNERS_H

#include <tessaly/MailUserId.h>

#include <functional>
#include <string>
#include <vector>

#include "tools/spool/mailbox_job.h"
#include "tools/work/address_list.h"
#include "tools/work/report.h"

namespace Tessaly::tool {

// An entry of one of a mailbox's lists. It is untrusted: users can write anything into their lists.
struct PartnerEntry {
    std::string partner;
    std::string list;    // the partner's list that may name the mailbox
    std::size_t of = 0;  // the mailbox's number, for work on several
};
using PartnerEntries = std::vector<PartnerEntry>;

// As the mailbox's owner: the entries of its lists, and the same in the parent.
Json entries_of(const TSMailUserId& id, Report& report);
PartnerEntries entries_in(const Json& entries);

// Runs `work` on the list of each entry, as the owner of the partner's mailbox. An entry that is
// not the address of a mailbox is left out: silently if there is no such mailbox and `missing` is
// empty, else with a warning. `show` gets what the work reports. Returns the largest exit code; a
// failure does not prevent the others.
int run_on_partners(
    Session& session, Homes& homes, const PartnerEntries& entries, const std::string& missing,
    const std::function<void(const PartnerEntry&, const AddressList&, Report&)>& work,
    const std::function<void(const PartnerEntry&)>& show = {});

}  // namespace Tessaly::tool

#endif
