// Finds mailboxes, and runs a job over them.
#ifndef TSMAIL_TOOLS_SPOOL_MAILBOX_JOB_H
#define TSMAIL_TOOLS_SPOOL_MAILBOX_JOB_H

#include <tessaly/MailUserId.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/cli/grammar.h"
#include "tools/spool/job.h"

namespace Tessaly::tool {

// Finds homes. Keeps the last domain's directory open, as mailboxes come sorted by domain, and
// remembers users: a lookup in the system's user database costs more than all else here.
class Homes {
  public:
    // The home of a mailbox. A Failure as from step(): kExitNoUser if there is no home.
    Place home(const TSMailUserId& id);
    // The owner whose rights a worker on this mailbox gets. A Failure with kExitNoUser if the home
    // or its maildir root is missing.
    Owner owner(const TSMailUserId& id);

  private:
    const Place& domain(const TSMailUserId& id);

    std::string domain_name_;
    std::optional<Place> domain_;
    std::map<std::pair<uid_t, gid_t>, Owner> users_;  // by a home's user and group
};

// The mailboxes that a command is about.
struct Mailboxes {
    std::vector<TSMailUserId> ids;
    bool all = false;  // all of the spool or of a domain; false: one named mailbox
    // A failure for each directory that could not be searched for mailboxes.
    std::vector<Failure> unread = {};
    // The directories in a home's place that hold a maildir root, but have a name that no address
    // leads to.
    std::vector<std::string> not_addresses = {};
};

// The mailbox with this address, which need not exist yet.
Mailboxes one_mailbox(const std::string& address);
// All mailboxes of users below the usual place, in byte order of their directories. With `domain`,
// only those of this domain; a Failure with kExitData if the domain does not exist.
Mailboxes every_mailbox(const std::optional<std::string>& domain = {});
// A Failure with kExitUsage unless exactly one of address, all and domain is given.
void check_choice(const Choice& choice);
// The mailboxes that a command line asks for. Checks the choice.
Mailboxes mailboxes_of(const Choice& choice);

// The directories of the domains that a command line asks for, as far as they can be opened.
std::vector<Place> domains_of(const Choice& choice);

// A job (spool/job.h) with a task for each mailbox.
struct MailboxJob {
    std::string progress;  // the text of the progress line
    std::size_t jobs = 1;
    // In a worker, as the mailbox's owner: does the work and returns the exit code.
    std::function<int(const TSMailUserId&, Report&)> work;
    // In the parent: shows a result.
    std::function<void(const TSMailUserId&, const Json&)> show = [](const TSMailUserId&,
                                                                    const Json&) {};
    // Whether the work changes sizes. If so, and a worker is ended in the middle, the mailbox is
    // marked for a recount.
    bool changes_sizes = false;
};

// Runs it and returns the exit code. If all mailboxes were asked for, a mailbox that vanished
// meanwhile is skipped, and the last line of output tells how many were left out.
int run_on(Session& session, const Mailboxes& mailboxes, const MailboxJob& work);
// The same without that line.
JobResult run_quietly_on(Session& session, const Mailboxes& mailboxes, const MailboxJob& work);
void show_left_out(Session& session, const JobResult& result);

}  // namespace Tessaly::tool

#endif
