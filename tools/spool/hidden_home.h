// Homes that `mailbox remove` put aside: hidden names in the directory of their domain.
//
// Beside a hidden home lies a record, ".deleted.<day>.<name>.<number>.partners", with the lists
// from which the mailbox was removed. It belongs to the owner of the domain's directory: a user who
// could write it would enter himself in other users' lists with a restore.
#ifndef TSMAIL_TOOLS_SPOOL_HIDDEN_HOME_H
#define TSMAIL_TOOLS_SPOOL_HIDDEN_HOME_H

#include <tessaly/MailUserId.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/cli/grammar.h"
#include "tools/spool/walk.h"

namespace Tessaly::tool {

struct HiddenHome {
    TSMailUserId id;   // the mailbox whose home it was
    std::string name;  // in the domain's directory
    bool claimed;      // a sweep has begun to remove it

    std::string directory() const { return id.fname(MUF_HOME_PARENT); }
    std::string path() const { return directory() + '/' + name; }
    std::string record() const;
};

// The hidden homes in the directory of a domain, in byte order.
std::vector<HiddenHome> hidden_homes_in(const Place& domain);
// Those of the mailboxes that a command line asks for. Directories that cannot be read are left
// out, as mailboxes_of() reports them.
std::vector<HiddenHome> hidden_homes_of(const Choice& choice);

// The name of the hidden home to which a record belongs, or the same name.
std::string name_of_home(const std::string& record);

// The home as it is called once a sweep has begun to remove it.
HiddenHome claimed(const HiddenHome& home);

// When the home was hidden: the time of its record, else that of its last change of status.
timespec hidden_since(const Place& domain, const HiddenHome& home);
bool is_older(const Place& domain, const HiddenHome& home, std::chrono::seconds age);

// The lists from which a mailbox was removed: (address of the partner, list).
using PartnerLists = std::vector<std::pair<std::string, std::string>>;

// As the owner of the domain's directory, which is open:
// gives the home its hidden name, and records the lists. A Failure, with nothing changed, if that
// is not possible.
void hide_home(int domain, const TSMailUserId& id, const PartnerLists& lists);
// Reads the record; no lists if there is none.
PartnerLists recorded_lists(int domain, const HiddenHome& home);
// Removes the record and gives the home its name again. A Failure if the name is taken.
void show_home(int domain, const HiddenHome& home);
// Gives the home the name of claimed(), so that it cannot be restored any more.
void claim_home(int domain, const HiddenHome& home);
// Removes a hidden home that is empty, or the link to it, and its record.
void remove_home(int domain, const HiddenHome& home);

}  // namespace Tessaly::tool

#endif
