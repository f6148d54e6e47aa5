#include "tools/verbs/usage_rows.h"

#include "tools/work/scheduled.h"
#include "tools/work/usage.h"

namespace Tessaly::tool {

namespace {

using std::string;

Json json_of(const TSMailUserId& id, const MailboxUsage& usage) {
    Json object = {{"address", id.address(true)}, {"path", id.mailpath()}};
    object["bytes"] = usage.kept.damaged ? Json(nullptr) : Json(usage.kept.size);
    object["messages"] = usage.kept.damaged ? Json(nullptr) : Json(usage.kept.count);
    object["dirty"] = usage.dirty;
    object["warning"] = usage.warning;
    object["exceeded"] = usage.exceeded;
    object["changed"] = usage.changed > 0 ? Json(usage.changed) : Json(nullptr);
    return object;
}

long long is(const Json& row, const char* field) { return row.at(field).get<bool>() ? 1 : 0; }

void add(UsageSums& sums, const Json& row) {
    for (std::size_t i = 0; i < kUsageSums; ++i) sums[i] += kUsageSumTable[i].of(row);
}

}  // namespace

constinit const std::array<UsageSum, kUsageSums> kUsageSumTable = {{
    {"mailboxes", "tsmail_mailboxes", "Mailboxes.", [](const Json&) { return 1LL; }},
    {"messages", "tsmail_messages", "Recorded number of messages.",
     [](const Json& row) { return usage_number(row, "messages"); }},
    {"bytes", "tsmail_mail_bytes", "Recorded size of the messages.",
     [](const Json& row) { return usage_number(row, "bytes"); }},
    {"warning", "tsmail_quota_warning_mailboxes", "Mailboxes with the warning flag.",
     [](const Json& row) { return is(row, "warning"); }},
    {"exceeded", "tsmail_quota_exceeded_mailboxes", "Mailboxes with the exceeded flag.",
     [](const Json& row) { return is(row, "exceeded"); }},
    {"dirty", "tsmail_marked_mailboxes", "Mailboxes that are marked for a recount.",
     [](const Json& row) { return is(row, "dirty"); }},
    {"damaged", "tsmail_damaged_mailboxes", "Mailboxes whose size file is damaged.",
     [](const Json& row) { return row.at("bytes").is_null() ? 1LL : 0LL; }},
    {"scheduled", "tsmail_scheduled_folders", "Folders that are scheduled for deletion.",
     [](const Json& row) {
         return row.contains("scheduled") ? usage_number(row, "scheduled") : 0;
     }},
}};

long long usage_number(const Json& row, const char* field) {
    const Json& value = row.at(field);
    return value.is_null() ? 0 : value.get<long long>();
}

JobResult read_usage(Session& session, const std::optional<string>& domain, bool scheduled,
                     UsageRows& rows) {
    MailboxJob job;
    job.progress = "looking at mailboxes";
    job.work = [scheduled](const TSMailUserId& id, Report& report) {
        Json object = json_of(id, usage_of(id));
        if (scheduled) object["scheduled"] = scheduled_in(id).size();
        report.object(object);
        return kExitOk;
    };
    job.show = [&](const TSMailUserId& id, const Json& object) { rows.push_back({id, object}); };
    return run_quietly_on(session, every_mailbox(domain), job);
}

UsageSums sums_of(const UsageRows& rows) {
    UsageSums sums = {};
    for (const UsageRow& row : rows) add(sums, row.object);
    return sums;
}

std::map<string, UsageSums> sums_by_domain(const UsageRows& rows) {
    std::map<string, UsageSums> sums;
    for (const UsageRow& row : rows) add(sums[row.id.domain()], row.object);
    return sums;
}

Json object_of(const UsageSums& sums) {
    Json object;
    for (std::size_t i = 0; i < kUsageSums; ++i) object[kUsageSumTable[i].field] = sums[i];
    return object;
}

void show_sums(Session& session, const std::map<string, UsageSums>& sums) {
    for (const auto& [domain, numbers] : sums) {
        Json object = {{"domain", domain}};
        object.update(object_of(numbers));
        session.out.object(object);
    }
}

}  // namespace Tessaly::tool
