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
    std::string address;
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

// The list that the arguments name.
struct NamedList {
    AddressList list;
    std::optional<TSMailUserId> user;  // the user whose list it is, if it is a user's list
};

NamedList named_list(const ListArguments& arguments);
Owner owner_of_list(const NamedList& named);

// Works on the list in a worker that runs as the owner of the list's directory.
int run_on_list(Session& session, const ListArguments& arguments,
                const std::function<int(const AddressList&, Report&)>& work,
                const std::function<void(const Json&)>& show = {});

}  // namespace Tessaly::tool

#endif
