// size - compares the stored sizes of a mailbox with its folders.
#include "tools/cli/address.h"
#include "tools/cli/text.h"
#include "tools/spool/mailbox_job.h"
#include "tools/verbs/verbs.h"
#include "tools/work/size_report.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct Arguments {
    string address;
    std::optional<string> folder;
};

string size_or_dash(const Json& bytes) {
    return bytes.is_null() ? "-" : size_text(bytes.get<std::uint64_t>());
}

string number_or_dash(const Json& number) {
    return number.is_null() ? "-" : std::to_string(number.get<std::uint64_t>());
}

std::vector<string> cells(const Json& row) {
    const bool damaged = row.at("kept_damaged").get<bool>();
    return {row.value("folder", string("mailbox")),
            number_or_dash(row.at("kept_messages")),
            damaged ? "damaged" : size_or_dash(row.at("kept_bytes")),
            size_or_dash(row.value("cached_bytes", Json())),
            number_or_dash(row.at("actual_messages")),
            size_or_dash(row.at("actual_bytes")),
            row.at("agrees").get<bool>() ? "" : "differs"};
}

Table size_table() {
    return Table({{"folder"},
                  {"kept", Align::right},
                  {"size", Align::right},
                  {"cached", Align::right},
                  {"actual", Align::right},
                  {"size", Align::right},
                  {""}});
}

int run_size(Session& session, const Arguments& arguments) {
    if (arguments.folder) check_folder_name(*arguments.folder);
    Table table = size_table();
    bool any = false, marked = false;
    MailboxJob job;
    job.work = [&](const TSMailUserId& id, Report& report) {
        report_sizes(id, arguments.folder, report);
        return kExitOk;
    };
    job.show = [&](const TSMailUserId&, const Json& row) {
        if (session.json) return session.out.object(row);
        table.row(cells(row));
        any = true;
        marked = marked || row.value("dirty", false);
    };
    const int code = run_on(session, one_mailbox(arguments.address), job);
    if (any) table.print(session.out);
    if (marked) session.out.line("The mailbox is marked for a recount.");
    return code;
}

void declare_size(Verb& verb, Arguments& arguments) {
    verb.address(arguments.address)
        .text("FOLDER", arguments.folder,
              "The folder, as Work/2024 (default: all, and the mailbox)");
}

}  // namespace

void add_size_verb(const VerbGroup& top) {
    top.reader("size", "Compare the stored sizes with what the folders hold", declare_size,
               run_size);
}

}  // namespace Tessaly::tool
