// size - compares the stored sizes of a mailbox with its folders.
#include <fmt/format.h>

#include "tools/cli/address.h"
#include "tools/cli/text.h"
#include "tools/verbs/each_mailbox.h"
#include "tools/verbs/verbs.h"
#include "tools/work/size_report.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct Arguments {
    Choice choice;
    std::optional<string> folder;
    std::optional<string> jobs;
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

Table size_table(const Mailboxes& mailboxes) {
    return Table(with_mailbox<Table::Column>(mailboxes, {"mailbox"},
                                             {{"folder"},
                                              {"kept", Align::right},
                                              {"size", Align::right},
                                              {"cached", Align::right},
                                              {"actual", Align::right},
                                              {"size", Align::right},
                                              {""}}));
}

void show_marked(Session& session, const Mailboxes& mailboxes, int marked) {
    if (marked == 0) return;
    if (!mailboxes.all) return session.out.line("The mailbox is marked for a recount.");
    session.out.line(
        fmt::format("{} marked for a recount.",
                    marked == 1 ? "1 mailbox is" : fmt::format("{} mailboxes are", marked)));
}

int run_size(Session& session, const Arguments& arguments) {
    session.out.end_with_reader();
    if (arguments.folder) check_folder_name(*arguments.folder);
    const Mailboxes mailboxes = mailboxes_of(arguments.choice);
    Table table = size_table(mailboxes);
    bool any = false;
    int marked = 0;
    MailboxJob job;
    job.progress = mailboxes.all ? "looking at mailboxes" : "";
    job.jobs = jobs_of(arguments.jobs);
    job.work = [&](const TSMailUserId& id, Report& report) {
        report_sizes(id, arguments.folder, report);
        return kExitOk;
    };
    job.show = [&](const TSMailUserId& id, const Json& row) {
        table.row(with_mailbox(mailboxes, id.address(true), cells(row)));
        any = true;
        marked += row.value("dirty", false) ? 1 : 0;
    };
    return run_on_each(session, mailboxes, job, [&](int) {
        if (any) table.print(session.out);
        show_marked(session, mailboxes, marked);
    });
}

void declare_size(Verb& verb, Arguments& arguments) {
    verb.choice(arguments.choice)
        .text("FOLDER", arguments.folder,
              "The folder, as Work/2024 (default: all, and the mailbox)")
        .jobs(arguments.jobs);
}

}  // namespace

void add_size_verb(const VerbGroup& top) {
    top.reader("size", "Compare the stored sizes with what the folders hold", declare_size,
               run_size);
}

}  // namespace Tessaly::tool
