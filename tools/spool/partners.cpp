#include "tools/spool/partners.h"

#include <tessaly/maillist.h>

#include "base/store_names.h"
#include "tools/cli/address.h"
#include "tools/cli/text.h"

namespace Tessaly::tool {

namespace {

using std::string;

// A list of the mailbox, and the partner's list that should name the mailbox in return.
struct Relation {
    std::string_view own, partners;
};
constexpr Relation kRelations[] = {
    {names::kPrimaryAddresses, names::kSecondaryAddresses},
    {names::kSecondaryAddresses, names::kPrimaryAddresses},
};

std::vector<string> lines_of(const AddressList& list, Report& report) {
    try {
        return list.lines();
    } catch (const Failure& failure) {
        if (failure.code() != kExitNoInput) report.warn(failure.what());
        return {};
    }
}

// The owner of the partner that an entry names; nothing if it is left out.
std::optional<Owner> owner_of_partner(Session& session, Homes& homes, const PartnerEntry& entry,
                                      const string& missing) {
    try {
        return homes.owner(mailbox_of(entry.partner));
    } catch (const Failure& failure) {
        if (failure.code() != kExitNoUser) {
            session.warn(string(failure.what()) + "; this entry is left alone");
        } else if (!missing.empty()) {
            session.warn(string(failure.what()) + missing);
        }
        return std::nullopt;
    }
}

}  // namespace

Json entries_of(const TSMailUserId& id, Report& report) {
    Json entries = Json::array();
    for (const Relation& relation : kRelations) {
        const AddressList list(id.address(true), string(relation.own), MAIL_LIST_USER);
        std::vector<string> lines = lines_of(list, report);
        if (lines.size() > kListLines) {
            report.warn(printable(list.path()) + ": only the first lines of this list are used");
            lines.resize(kListLines);
        }
        for (const string& line : lines) {
            if (!line.empty()) entries.push_back({line, relation.partners});
        }
    }
    return entries;
}

PartnerEntries entries_in(const Json& entries) {
    PartnerEntries all;
    for (const Json& entry : entries) {
        all.push_back({entry.at(0).get<string>(), entry.at(1).get<string>(), 0});
    }
    return all;
}

int run_on_partners(
    Session& session, Homes& homes, const PartnerEntries& entries, const string& missing,
    const std::function<void(const PartnerEntry&, const AddressList&, Report&)>& work,
    const std::function<void(const PartnerEntry&)>& show) {
    Job job;
    job.count = entries.size();
    job.owner = [&](std::size_t n) {
        return owner_of_partner(session, homes, entries[n], missing);
    };
    job.work = [&](std::size_t n, int, Report& report) {
        work(entries[n], AddressList(entries[n].partner, entries[n].list, MAIL_LIST_USER), report);
        return kExitOk;
    };
    job.show = [&](std::size_t n, const Json&) { show(entries[n]); };
    return run_job(session, job).code;
}

}  // namespace Tessaly::tool
