// usage - all mailboxes at a glance.
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <utility>

#include "tools/cli/text.h"
#include "tools/spool/mailbox_job.h"
#include "tools/verbs/usage_rows.h"
#include "tools/verbs/verbs.h"
#include "tools/work/usage.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct Arguments {
    std::optional<string> domain;
    string sort = "size";
    std::optional<string> limit;
    bool verify = false;
    bool total = false;
    bool by_domain = false;
    std::optional<string> jobs;
};

enum Order { kBySize, kByMessages, kByName };
constexpr Word kOrders[] = {{kBySize, "size"}, {kByMessages, "messages"}, {kByName, "name"}};

// ---- the worker's part

Json json_of(const Verified& verified) {
    return {{"actual_bytes", verified.actual.size},
            {"actual_messages", verified.actual.count},
            {"newest", verified.newest > 0 ? Json(verified.newest) : Json(nullptr)}};
}

// ---- what is shown

bool agrees(const Json& row) {
    return row.at("actual_bytes") == row.at("bytes") &&
           row.at("actual_messages") == row.at("messages");
}

// Sorts the largest first. Equal rows keep their order, which is by name.
void sort_rows(UsageRows& rows, int order) {
    if (order == kByName) return;
    const char* key = order == kBySize ? "bytes" : "messages";
    std::stable_sort(rows.begin(), rows.end(), [key](const UsageRow& a, const UsageRow& b) {
        return usage_number(a.object, key) > usage_number(b.object, key);
    });
}

string date_text(const Json& time) {
    const std::time_t seconds = time.is_null() ? 0 : time.get<std::time_t>();
    std::tm parts;
    if (seconds <= 0 || ::gmtime_r(&seconds, &parts) == nullptr) return "-";
    return fmt::format("{:%Y-%m-%d %H:%M}", parts);
}

string flags_text(const Json& row) {
    string text;
    for (const auto& [field, word] :
         {std::pair{"exceeded", "exceeded"}, std::pair{"warning", "warning"},
          std::pair{"dirty", "recount"}}) {
        if (row.at(field).get<bool>()) text += (text.empty() ? "" : " ") + string(word);
    }
    return text;
}

string bar(long long bytes, long long most) {
    constexpr double kWidth = 20;
    if (most == 0) return "";
    const double part = static_cast<double>(bytes) / static_cast<double>(most);
    return string(static_cast<std::size_t>(std::lround(part * kWidth)), '#');
}

string bytes_text(const Json& row, const char* field) {
    return size_text(static_cast<std::uint64_t>(usage_number(row, field)));
}

std::vector<string> cells(const Json& row, long long most) {
    const bool damaged = row.at("bytes").is_null();
    std::vector<string> cells = {row.at("address").get<string>(),
                                 damaged ? "-" : std::to_string(usage_number(row, "messages")),
                                 damaged ? "damaged" : bytes_text(row, "bytes"),
                                 bar(usage_number(row, "bytes"), most),
                                 date_text(row.at("changed")),
                                 flags_text(row)};
    if (!row.contains("actual_bytes")) return cells;
    cells.insert(cells.end(),
                 {date_text(row.at("newest")), std::to_string(usage_number(row, "actual_messages")),
                  bytes_text(row, "actual_bytes"), agrees(row) ? "" : "differs"});
    return cells;
}

void show_table(Session& session, const UsageRows& rows, bool verify) {
    std::vector<Table::Column> columns = {
        {"mailbox"}, {"messages", Align::right}, {"size", Align::right},
        {""},        {"changed (UTC)"},          {"flags"}};
    if (verify) {
        columns.insert(columns.end(),
                       {{"newest (UTC)"}, {"actual", Align::right}, {"size", Align::right}, {""}});
    }
    Table table(std::move(columns));
    long long most = 0;
    for (const UsageRow& row : rows) most = std::max(most, usage_number(row.object, "bytes"));
    for (const UsageRow& row : rows) table.row(cells(row.object, most));
    table.print(session.out);
}

// Verifies only the mailboxes that are shown, as this reads every folder.
JobResult verify_all(Session& session, std::size_t jobs, UsageRows& rows) {
    Mailboxes mailboxes;
    mailboxes.all = true;
    for (const UsageRow& row : rows) mailboxes.ids.push_back(row.id);
    MailboxJob job;
    job.progress = "verifying mailboxes";
    job.jobs = jobs;
    job.work = [](const TSMailUserId& id, Report& report) {
        report.object(json_of(verify(id)));
        return kExitOk;
    };
    auto next = rows.begin();
    job.show = [&](const TSMailUserId& id, const Json& verified) {
        next = std::find_if(next, rows.end(), [&](const UsageRow& row) {
            return row.id.tilde_name() == id.tilde_name();
        });
        if (next != rows.end()) next->object.update(verified);
    };
    const JobResult result = run_quietly_on(session, mailboxes, job);
    for (UsageRow& row : rows) {
        if (!row.object.contains("actual_bytes")) row.object.update(json_of(Verified()));
        row.object["agrees"] = agrees(row.object);
    }
    return result;
}

// ---- sums

std::vector<string> sum_cells(const string& name, const UsageSums& sums) {
    std::vector<string> cells = {name};
    for (std::size_t i = 0; i < kUsageSums; ++i) {
        const bool size = std::string_view(kUsageSumTable[i].field) == "bytes";
        cells.push_back(size ? size_text(static_cast<std::uint64_t>(std::max(sums[i], 0LL)))
                             : std::to_string(sums[i]));
    }
    return cells;
}

// With both options the total is the last line.
int run_sums(Session& session, const Arguments& arguments) {
    UsageRows rows;
    const JobResult result = read_usage(session, arguments.domain, true, rows);
    std::map<string, UsageSums> domains;
    if (arguments.by_domain) domains = sums_by_domain(rows);
    if (session.json) {
        show_sums(session, domains);
        if (arguments.total) session.out.object(object_of(sums_of(rows)));
        return result.code;
    }
    std::vector<Table::Column> columns = {{"domain"}};
    for (const UsageSum& sum : kUsageSumTable) columns.push_back({sum.field, Align::right});
    Table table(std::move(columns));
    for (const auto& [domain, sums] : domains) table.row(sum_cells(domain, sums));
    if (arguments.total) table.row(sum_cells("total", sums_of(rows)));
    table.print(session.out);
    show_left_out(session, result);
    return result.code;
}

int run_rows(Session& session, const Arguments& arguments) {
    const Word& order = word_of(kOrders, "order", arguments.sort);
    const auto limit =
        arguments.limit ? whole_number("limit", *arguments.limit, 0, INT32_MAX) : INT32_MAX;
    const std::size_t jobs = jobs_of(arguments.jobs);
    UsageRows rows;
    JobResult result = read_usage(session, arguments.domain, false, rows);
    sort_rows(rows, order.number);
    rows.resize(std::min(rows.size(), static_cast<std::size_t>(limit)));
    if (arguments.verify) result = worst_of(result, verify_all(session, jobs, rows));
    if (session.json) {
        for (const UsageRow& row : rows) session.out.object(row.object);
    } else {
        show_table(session, rows, arguments.verify);
    }
    show_left_out(session, result);
    return result.code;
}

int run_usage(Session& session, const Arguments& arguments) {
    session.out.end_with_reader();
    const bool sums = arguments.total || arguments.by_domain;
    if (sums && (arguments.verify || arguments.limit)) {
        throw Failure(kExitUsage, "--total and --by-domain go with neither --verify nor --limit");
    }
    return sums ? run_sums(session, arguments) : run_rows(session, arguments);
}

void declare_usage(Verb& verb, Arguments& arguments) {
    verb.text("--domain", arguments.domain, "Only the mailboxes of this domain")
        .text("--sort", arguments.sort, "By size, messages or name (default: size)")
        .one_of(kOrders)
        .text("--limit", arguments.limit, "How many mailboxes at most")
        .flag("--verify", arguments.verify, "Compare with what the folders hold")
        .flag("--by-domain", arguments.by_domain, "Show the sums of each domain instead")
        .flag("--total", arguments.total, "Show the sums of all mailboxes instead")
        .jobs(arguments.jobs);
}

}  // namespace

void add_usage_verb(const VerbGroup& top) {
    top.reader("usage", "Show all mailboxes with their kept sizes", declare_usage, run_usage);
}

}  // namespace Tessaly::tool
