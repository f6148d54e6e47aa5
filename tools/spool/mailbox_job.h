// Which mailboxes there are, and a job over them.
#ifndef TSMAIL_TOOLS_SPOOL_MAILBOX_JOB_H
#define TSMAIL_TOOLS_SPOOL_MAILBOX_JOB_H

#include <tessaly/MailUserId.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/cli/grammar.h"
#include "tools/spool/job.h"

namespace Tessaly::tool {

// Finds homes. Keeps the last domain's directory open, as mailboxes come by domain.
class Homes {
  public:
    // The home of a mailbox. A Failure as of step(); kExitNoUser if there is none.
    Place home(const TSMailUserId& id);
    // Whose rights a worker on this mailbox gets. A Failure with kExitNoUser if the home or its
    // maildir root is missing.
    Owner owner(const TSMailUserId& id);

  private:
    const Place& domain(const TSMailUserId& id);

    std::string domain_name_;
    std::optional<Place> domain_;
};

// The mailboxes that a command is about.
struct Mailboxes {
    std::vector<TSMailUserId> ids;
    bool all = false;  // of the spool or of a domain; else one that was named
    // What could not be looked into for mailboxes.
    std::vector<Failure> unread = {};
};

// The one that has this address, which need not be there yet.
Mailboxes one_mailbox(const std::string& address);
// All mailboxes of users below the usual place, in byte order of their directories; those of one
// domain, which must be there (a Failure with kExitData if not).
Mailboxes every_mailbox(const std::optional<std::string>& domain = {});
// What the words of a command line ask for. A Failure with kExitUsage unless just one of address,
// all and domain is given.
Mailboxes mailboxes_of(const Choice& choice);

// A job (spool/job.h) with a task for each mailbox.
struct MailboxJob {
    std::string progress;  // what the progress line says
    std::size_t jobs = 1;
    // In a worker, as the mailbox's owner.
    std::function<int(const TSMailUserId&, Report&)> work;
    // In the parent.
    std::function<void(const TSMailUserId&, const Json&)> show = [](const TSMailUserId&,
                                                                    const Json&) {};
    // Whether sizes change: after a worker was ended in the middle the mailbox is marked for a
    // recount.
    bool changes_sizes = false;
};

// Runs it and returns the exit code. Where all mailboxes were asked for, one that vanished
// meanwhile is passed over, and the last line of output says how many were left out.
int run_on(Session& session, const Mailboxes& mailboxes, const MailboxJob& work);
// The same without that line.
JobResult run_quietly_on(Session& session, const Mailboxes& mailboxes, const MailboxJob& work);
void show_left_out(Session& session, const JobResult& result);

}  // namespace Tessaly::tool

#endif
