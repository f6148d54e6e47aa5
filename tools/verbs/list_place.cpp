#include "tools/verbs/list_place.h"

#include "tools/cli/address.h"

namespace Tessaly::tool {

namespace {

using std::string;

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

}  // namespace

NamedList named_list(const ListArguments& arguments) {
    const auto scope = static_cast<unsigned>(word_of(kListScopes, "scope", arguments.scope).number);
    check_list_name(arguments.list);
    if (scope == MAIL_LIST_HOME) check_home_name(arguments.address);
    NamedList named{AddressList(arguments.address, arguments.list, scope), std::nullopt};
    if (scope == MAIL_LIST_USER) {
        named.user = exact_mailbox_of(arguments.address);
        if (named.list.path() == named.user->fname(MUF_PREF_FILE)) {
            throw Failure(kExitData,
                          "\"pref\" is not a list: the user's preferences have that name");
        }
    }
    return named;
}

Owner owner_of_list(const NamedList& named) {
    if (named.user) return Homes().owner(*named.user);
    const string& path = named.list.path();
    return owner_of_directory(path.substr(0, path.rfind('/')));
}

int run_on_list(Session& session, const ListArguments& arguments,
                const std::function<int(const AddressList&, Report&)>& work,
                const std::function<void(const Json&)>& show) {
    const NamedList named = named_list(arguments);
    Job job;
    job.owner = [&](std::size_t) { return owner_of_list(named); };
    job.work = [&](std::size_t, int, Report& report) { return work(named.list, report); };
    job.show = [&](std::size_t, const Json& object) {
        session.json ? session.out.object(object) : show(object);
    };
    return run_job(session, job).code;
}

}  // namespace Tessaly::tool
