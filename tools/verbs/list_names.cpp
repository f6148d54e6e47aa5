// list names - shows which lists there are.
#include "tools/cli/output.h"
#include "tools/verbs/list_place.h"

namespace Tessaly::tool {

namespace {

using std::string;

int report_names(const string& user, unsigned scope, Report& report) {
    for (const string& name : list_names(user, scope)) {
        try {
            const auto entries = AddressList(user, name, scope).sorted().size();
            report.object({{"list", name}, {"entries", entries}});
        } catch (const Failure& failure) {
            report.error(failure);
        }
    }
    return kExitOk;
}

int run_names(Session& session, const ListArguments& arguments) {
    session.out.end_with_reader();
    const bool many = !arguments.choice.address;
    std::vector<Table::Column> columns = {{"list"}, {"entries", Align::right}};
    if (many) columns.insert(columns.begin(), {"mailbox"});
    Table table(std::move(columns));
    ListArguments any = arguments;
    any.list = known_lists().front();  // lies in the same directory
    const auto work = [scope = scope_of(arguments)](const AddressList& some, Report& report) {
        return report_names(some.user(), scope, report);
    };
    const auto show = [&](const string& whose, const Json& list) {
        std::vector<string> cells = {list.at("list").get<string>(),
                                     std::to_string(list.at("entries").get<std::size_t>())};
        if (many) cells.insert(cells.begin(), whose);
        table.row(std::move(cells));
    };
    return run_on_list(session, any, work, show, [&](int code) {
        if (many || code == kExitOk) table.print(session.out);
    });
}

void declare_names(Verb& verb, ListArguments& arguments) {
    declare_scope(verb.choice(arguments.choice), arguments);
}

}  // namespace

void add_list_names(const VerbGroup& group) {
    group.reader("names", "Show which lists there are", declare_names, run_names);
}

}  // namespace Tessaly::tool
