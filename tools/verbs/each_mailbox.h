// Runs a verb on one mailbox, or on each of many, and says whose a result is if there are many.
#ifndef TSMAIL_TOOLS_VERBS_EACH_MAILBOX_H
#define TSMAIL_TOOLS_VERBS_EACH_MAILBOX_H

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tools/spool/mailbox_job.h"

namespace Tessaly::tool {

// Runs the job and returns the exit code. Its `show` shows a result to people; as JSON results are
// shown here, of many mailboxes with the address in front. Of many, a mailbox that vanished or that
// lacks the folder or list (kExitNoInput) is passed over. `end` gets the exit code and shows what
// comes behind all results.
int run_on_each(Session& session, const Mailboxes& mailboxes, MailboxJob job,
                const std::function<void(int)>& end = {});

// A verb that has its own way to show results needs these two of run_on_each().
using MailboxWork = std::function<int(const TSMailUserId&, Report&)>;
// Of many mailboxes, the work passes over one that vanished or lacks the folder.
MailboxWork passing_over(const Mailboxes& mailboxes, MailboxWork work);
// A result as JSON; of many mailboxes with the address in front.
Json addressed(const Mailboxes& mailboxes, const TSMailUserId& id, const Json& object);

// What stands in front of a line: nothing if there is only one mailbox, else its address and
// `between`.
std::string lead(const Mailboxes& mailboxes, const TSMailUserId& id, const char* between = ": ");

// The cells or columns of a table, with one for the mailbox in front if there are many.
template <class T>
std::vector<T> with_mailbox(const Mailboxes& mailboxes, T mailbox, std::vector<T> others) {
    if (mailboxes.all) others.insert(others.begin(), std::move(mailbox));
    return others;
}

}  // namespace Tessaly::tool

#endif
