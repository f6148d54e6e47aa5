// The list that a command line names, and the worker that works on it.
#ifndef TSMAIL_TOOLS_VERBS_LIST_PLACE_H
#define TSMAIL_TOOLS_VERBS_LIST_PLACE_H

#include <tessaly/maillist.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/cli/grammar.h"
#include "tools/spool/mailbox_job.h"
#include "tools/work/address_list.h"

namespace Tessaly::tool {

struct ListArguments {
    Choice choice;
    std::string list;
    std::string scope = "user";
    std::vector<std::string> words;
    std::string line;
    std::string entry;
    std::string file;
    bool sorted = false;
    bool any_name = false;
    bool dry_run = false;
};

inline constexpr Word kListScopes[] = {
    {MAIL_LIST_USER, "user"}, {MAIL_LIST_HOME, "home"}, {MAIL_LIST_SYSTEM, "system"}};

Verb& declare_scope(Verb& verb, ListArguments& arguments);
unsigned scope_of(const ListArguments& arguments);

// The list that the arguments name, which have an address.
struct NamedList {
    AddressList list;
    std::optional<TSMailUserId> user;  // the user whose list it is, if it is a user's list
};

NamedList named_list(const ListArguments& arguments);
Owner owner_of_list(const NamedList& named);

// Works on the list in a worker that runs as the owner of the list's directory, or on the lists of
// many mailboxes. `show` shows a result to people, with the address of the list's mailbox if there
// are many, else with an empty text; `end` gets the exit code and shows people what comes behind.
int run_on_list(Session& session, const ListArguments& arguments,
                const std::function<int(const AddressList&, Report&)>& work,
                const std::function<void(const std::string& whose, const Json&)>& show = {},
                const std::function<void(int)>& end = {});

// Adds the verb "names", which has a file of its own.
void add_list_names(const VerbGroup& group);

}  // namespace Tessaly::tool

#endif
