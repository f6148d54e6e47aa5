#include "tools/verbs/list_place.h"

#include "tools/cli/address.h"
#include "tools/verbs/each_mailbox.h"

namespace Tessaly::tool {

namespace {

using std::string;
using Work = std::function<int(const AddressList&, Report&)>;
using Show = std::function<void(const string&, const Json&)>;
using End = std::function<void(int)>;

// The owner of the directory, or of the nearest one above it that exists: the work then reports
// that the directory is missing.
Owner owner_of_directory(string path) {
    for (;;) {
        try {
            return owner_of(place_at(path));
        } catch (const Failure& failure) {
            if (failure.error() != ENOENT) throw;
            path.erase(path.rfind('/'));
        }
    }
}

void check_name(const ListArguments& arguments) {
    check_list_name(arguments.list);
    if (arguments.list != "pref" || scope_of(arguments) != MAIL_LIST_USER) return;
    throw Failure(kExitData, "\"pref\" is not a list: the user's preferences have that name");
}

int run_on_one(Session& session, const ListArguments& arguments, const Work& work, const Show& show,
               const End& end) {
    const NamedList named = named_list(arguments);
    Job job;
    job.owner = [&](std::size_t) { return owner_of_list(named); };
    job.work = [&](std::size_t, int, Report& report) { return work(named.list, report); };
    job.show = [&](std::size_t, const Json& object) {
        session.json ? session.out.object(object) : show("", object);
    };
    const int code = run_job(session, job).code;
    if (end && !session.json) end(code);
    return code;
}

int run_on_many(Session& session, const ListArguments& arguments, const Work& work,
                const Show& show, const End& end) {
    const unsigned scope = scope_of(arguments);
    if (scope != MAIL_LIST_USER) {
        throw Failure(kExitUsage, "--all and --domain go with the users' own lists alone");
    }
    check_name(arguments);
    const Mailboxes mailboxes = mailboxes_of(arguments.choice);
    MailboxJob job;
    job.progress = "working on lists";
    job.work = [&](const TSMailUserId& id, Report& report) {
        return work(AddressList(id.address(true), arguments.list, scope), report);
    };
    job.show = [&](const TSMailUserId& id, const Json& object) { show(id.address(true), object); };
    return run_on_each(session, mailboxes, job, end);
}

}  // namespace

Verb& declare_scope(Verb& verb, ListArguments& arguments) {
    return verb
        .text("--scope", arguments.scope,
              "user (default): the user's own; home: the list in the directory ADDRESS below the "
              "homes; system: the system's, ADDRESS is not looked at")
        .one_of(kListScopes);
}

unsigned scope_of(const ListArguments& arguments) {
    return static_cast<unsigned>(word_of(kListScopes, "scope", arguments.scope).number);
}

NamedList named_list(const ListArguments& arguments) {
    const unsigned scope = scope_of(arguments);
    const string& address = arguments.choice.address.value();
    check_name(arguments);
    if (scope == MAIL_LIST_HOME) check_home_name(address);
    NamedList named{AddressList(address, arguments.list, scope), std::nullopt};
    if (scope == MAIL_LIST_USER) named.user = exact_mailbox_of(address);
    return named;
}

Owner owner_of_list(const NamedList& named) {
    if (named.user) return Homes().owner(*named.user);
    const string& path = named.list.path();
    return owner_of_directory(path.substr(0, path.rfind('/')));
}

int run_on_list(Session& session, const ListArguments& arguments, const Work& work,
                const Show& show, const End& end) {
    check_choice(arguments.choice);
    const auto run = arguments.choice.address ? run_on_one : run_on_many;
    return run(session, arguments, work, show, end);
}

}  // namespace Tessaly::tool
