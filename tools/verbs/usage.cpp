// usage - all mailboxes at a glance.
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <functional>

#include "tools/cli/address.h"
#include "tools/cli/progress.h"
#include "tools/cli/text.h"
#include "tools/spool/identity.h"
#include "tools/spool/mailboxes.h"
#include "tools/verbs/verbs.h"
#include "tools/work/size_file.h"
#include "tools/work/usage.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct Arguments {
    std::optional<string> domain;
    string sort = "size";
    std::optional<string> limit;
    bool verify = false;
};

enum Order { kBySize, kByMessages, kByName };
constexpr Word kOrders[] = {{kBySize, "size"}, {kByMessages, "messages"}, {kByName, "name"}};

// The largest first; equal ones by name, in which order they come.
void sort_rows(std::vector<MailboxUsage>& rows, int order) {
    if (order == kByName) return;
    const auto key = order == kBySize ? &KeptTotal::bytes : &KeptTotal::messages;
    std::stable_sort(rows.begin(), rows.end(), [key](const MailboxUsage& a, const MailboxUsage& b) {
        return a.kept.*key > b.kept.*key;
    });
}

string date_text(std::time_t time) {
    std::tm parts;
    if (time <= 0 || ::gmtime_r(&time, &parts) == nullptr) return "-";
    return fmt::format("{:%Y-%m-%d %H:%M}", parts);
}

Json json_of(const MailboxUsage& row) {
    Json object = {{"address", row.id.address(true)}, {"path", row.id.mailpath()}};
    object["bytes"] = row.kept.damaged ? Json(nullptr) : Json(row.kept.bytes);
    object["messages"] = row.kept.damaged ? Json(nullptr) : Json(row.kept.messages);
    object["dirty"] = row.dirty;
    object["warning"] = row.warning;
    object["exceeded"] = row.exceeded;
    object["changed"] = row.changed > 0 ? Json(row.changed) : Json(nullptr);
    if (row.verified) {
        object["actual_bytes"] = row.verified->actual.bytes;
        object["actual_messages"] = row.verified->actual.messages;
        object["newest"] = row.verified->newest > 0 ? Json(row.verified->newest) : Json(nullptr);
        object["agrees"] = row.agrees();
    }
    return object;
}

string flags_text(const MailboxUsage& row) {
    string text;
    for (const auto& [is_set, word] :
         {std::pair{row.exceeded, "exceeded"}, std::pair{row.warning, "warning"},
          std::pair{row.dirty, "recount"}}) {
        if (is_set) text += (text.empty() ? "" : " ") + string(word);
    }
    return text;
}

string bar(long long bytes, long long most) {
    constexpr double kWidth = 20;
    if (most == 0) return "";
    const double part = static_cast<double>(bytes) / static_cast<double>(most);
    return string(static_cast<std::size_t>(std::lround(part * kWidth)), '#');
}

std::vector<string> cells(const MailboxUsage& row, long long most) {
    const KeptTotal& kept = row.kept;
    std::vector<string> cells = {
        row.id.address(true),
        kept.damaged ? "-" : std::to_string(kept.messages),
        kept.damaged ? "damaged" : size_text(static_cast<std::uint64_t>(kept.bytes)),
        bar(kept.bytes, most),
        date_text(row.changed),
        flags_text(row)};
    if (!row.verified) return cells;
    const KeptTotal& actual = row.verified->actual;
    cells.insert(cells.end(), {date_text(row.verified->newest), std::to_string(actual.messages),
                               size_text(static_cast<std::uint64_t>(actual.bytes)),
                               row.agrees() ? "" : "differs"});
    return cells;
}

void show_table(Session& session, const std::vector<MailboxUsage>& rows, bool verify) {
    std::vector<Table::Column> columns = {
        {"mailbox"}, {"messages", Align::right}, {"size", Align::right},
        {""},        {"changed (UTC)"},          {"flags"}};
    if (verify) {
        columns.insert(columns.end(),
                       {{"newest (UTC)"}, {"actual", Align::right}, {"size", Align::right}, {""}});
    }
    Table table(std::move(columns));
    long long most = 0;
    for (const MailboxUsage& row : rows) most = std::max(most, row.kept.bytes);
    for (const MailboxUsage& row : rows) table.row(cells(row, most));
    table.print(session.out);
}

std::vector<MailboxUsage> read_all(const Session& session, const Arguments& arguments) {
    const std::vector<TSMailUserId> mailboxes = all_mailboxes(arguments.domain);
    Progress progress(session, "looking at mailboxes", mailboxes.size());
    std::vector<MailboxUsage> rows;
    for (const TSMailUserId& id : mailboxes) {
        const AsOwner owner(session, id);
        rows.push_back(usage_of(id));
        progress.advance(rows.size());
    }
    return rows;
}

// Only of those that are shown: this looks into every folder.
int verify_all(const Session& session, std::vector<MailboxUsage>& rows) {
    Progress progress(session, "verifying mailboxes", rows.size());
    int worst = kExitOk;
    std::uint64_t done = 0;
    for (MailboxUsage& row : rows) {
        try {
            const AsOwner owner(session, row.id);
            row.verified = verify(row.id);
        } catch (const Failure& failure) {
            session.error(printable(row.id.address(true)) + ": " + failure.what());
            row.verified = Verified();
            worst = std::max<int>(worst, failure.code());
        }
        progress.advance(++done);
    }
    return worst;
}

int run_usage(Session& session, const Arguments& arguments) {
    const Word& order = word_of(kOrders, "order", arguments.sort);
    const auto limit =
        arguments.limit ? whole_number("limit", *arguments.limit, 0, INT32_MAX) : INT32_MAX;
    std::vector<MailboxUsage> rows = read_all(session, arguments);
    sort_rows(rows, order.number);
    rows.resize(std::min(rows.size(), static_cast<std::size_t>(limit)));
    const int code = arguments.verify ? verify_all(session, rows) : kExitOk;
    if (session.json) {
        for (const MailboxUsage& row : rows) session.out.object(json_of(row));
    } else {
        show_table(session, rows, arguments.verify);
    }
    return code;
}

void declare_usage(Verb& verb, Arguments& arguments) {
    verb.text("--domain", arguments.domain, "Only the mailboxes of this domain")
        .text("--sort", arguments.sort, "By size, messages or name (default: size)")
        .one_of(kOrders)
        .text("--limit", arguments.limit, "How many mailboxes at most")
        .flag("--verify", arguments.verify, "Compare with what the folders hold");
}

}  // namespace

void add_usage_verb(const VerbGroup& top) {
    top.verb("usage", "Show all mailboxes with their kept sizes", declare_usage, run_usage);
}

}  // namespace Tessaly::tool
