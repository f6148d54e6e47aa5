// messages - shows the messages of a folder.
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <optional>
#include <tuple>

#include "tools/cli/address.h"
#include "tools/cli/text.h"
#include "tools/verbs/each_mailbox.h"
#include "tools/verbs/verbs.h"
#include "tools/work/folder.h"
#include "tools/work/message_name.h"
#include "tools/work/scan.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct Arguments {
    Choice choice;
    string folder;
};

struct DatedMessage {
    std::time_t received, created;
    MessageRow row;
};

std::vector<DatedMessage> dated(const std::vector<MessageRow>& rows) {
    std::vector<DatedMessage> all;
    for (const MessageRow& row : rows) {
        const char* name = row.name.c_str();
        all.push_back({tsl_get_mail_received_date(name), tsl_get_mail_creation_date(name), row});
    }
    std::sort(all.begin(), all.end(), [](const DatedMessage& a, const DatedMessage& b) {
        return std::tie(a.received, a.row.name) < std::tie(b.received, b.row.name);
    });
    return all;
}

// A name can hold any number, but a date's year has at most four digits.
std::optional<std::tm> utc_of(std::time_t time) {
    constexpr std::time_t kEnd = 253402300800;  // the end of the year 9999
    std::tm parts;
    if (time < 0 || time >= kEnd || ::gmtime_r(&time, &parts) == nullptr) return std::nullopt;
    return parts;
}

Json json_of(std::time_t time) { return utc_of(time) ? Json(time) : Json(nullptr); }

void report_messages(const std::vector<DatedMessage>& messages, Report& report) {
    for (const auto& [received, created, row] : messages) {
        report.object({{"name", row.name},
                       {"place", row.is_new ? "new" : "cur"},
                       {"received", json_of(received)},
                       {"created", json_of(created)},
                       {"bytes", row.bytes},
                       {"flags", parts_of(row.name).flags}});
    }
}

int list_messages(const TSMailUserId& id, const string& folder, Report& report) {
    const string path = existing_folder(id, folder);
    int error = 0;
    report_messages(dated(messages_of(path, error)), report);
    if (error != 0) report.error(system_failure(printable(path), error));
    return kExitOk;
}

// ---- what is shown

string date_text(const Json& time) {
    const auto parts = time.is_null() ? std::nullopt : utc_of(time.get<std::time_t>());
    return parts ? fmt::format("{:%Y-%m-%d %H:%M:%S}", *parts) : "-";
}

Table message_table(const Mailboxes& mailboxes) {
    return Table(with_mailbox<Table::Column>(mailboxes, {"mailbox"},
                                             {{"received (UTC)"},
                                              {"created (UTC)"},
                                              {"size", Align::right},
                                              {"place"},
                                              {"flags"},
                                              {"name"}}));
}

std::vector<string> cells(const Json& row) {
    return {date_text(row.at("received")),
            date_text(row.at("created")),
            size_text(row.at("bytes").get<std::uint64_t>()),
            row.at("place").get<string>(),
            row.at("flags").get<string>(),
            row.at("name").get<string>()};
}

int run_messages(Session& session, const Arguments& arguments) {
    session.out.end_with_reader();
    check_folder_name(arguments.folder);
    const Mailboxes mailboxes = mailboxes_of(arguments.choice);
    Table table = message_table(mailboxes);
    bool any = false;
    MailboxJob job;
    job.progress = mailboxes.all ? "looking at mailboxes" : "";
    job.work = [&](const TSMailUserId& id, Report& report) {
        return list_messages(id, arguments.folder, report);
    };
    job.show = [&](const TSMailUserId& id, const Json& row) {
        table.row(with_mailbox(mailboxes, id.address(true), cells(row)));
        any = true;
    };
    return run_on_each(session, mailboxes, job, [&](int code) {
        if (any || code == kExitOk) table.print(session.out);
    });
}

void declare_messages(Verb& verb, Arguments& arguments) {
    verb.choice(arguments.choice);
    verb.text("FOLDER", arguments.folder, "The folder, as Work/2024").required();
}

}  // namespace

void add_messages_verb(const VerbGroup& top) {
    top.reader("messages", "Show the messages of a folder", declare_messages, run_messages);
}

}  // namespace Tessaly::tool
