// mailbox restore - brings back a mailbox that mailbox remove put aside; the verbs below "mailbox".
#include <fmt/format.h>

#include <algorithm>
#include <tuple>

#include "base/store_names.h"
#include "tools/cli/address.h"
#include "tools/cli/text.h"
#include "tools/spool/directory_job.h"
#include "tools/spool/hidden_home.h"
#include "tools/spool/partners.h"
#include "tools/verbs/mailbox.h"
#include "tools/verbs/removal.h"
#include "tools/verbs/verbs.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct Arguments {
    string address;
    bool dry_run = false;
};

// The hidden home that was hidden last.
HiddenHome youngest(const Place& domain, const TSMailUserId& id) {
    std::vector<HiddenHome> homes = hidden_homes_in(domain);
    std::erase_if(homes, [&](const HiddenHome& home) {
        return home.claimed || home.id.tilde_name() != id.tilde_name();
    });
    if (homes.empty()) {
        throw Failure(kExitNoUser,
                      printable(id.address(true)) + ": no such mailbox is scheduled for removal");
    }
    return *std::max_element(
        homes.begin(), homes.end(), [&](const HiddenHome& a, const HiddenHome& b) {
            const timespec left = hidden_since(domain, a), right = hidden_since(domain, b);
            return std::tie(left.tv_sec, left.tv_nsec) < std::tie(right.tv_sec, right.tv_nsec);
        });
}

class MailboxRestoration {
  public:
    MailboxRestoration(Session& session, const TSMailUserId& id)
        : session_(session), id_(id), domain_(domain_of(id)), home_(youngest(domain_, id)) {
        demand_free(domain_, id.tilde_name());
    }

    // Learns what is in the hidden home. Returns the exit code.
    int look(bool dry_run) {
        Job job;
        job.owner = [&](std::size_t) { return owner_of_mailbox(step(domain_, home_.name)); };
        job.work = [&](std::size_t, int, Report& report) {
            const Amount amount = amount_below(home_.path());
            report_deed(report, kRestore, id_.homepath(), amount, dry_run);
            return kExitOk;
        };
        job.show = [&](std::size_t, const Json& deed) { deed_ = deed; };
        return run_job(session_, job).code;
    }
    const Json& deed() const { return deed_; }

    // First enters the partners: if that is interrupted, or may succeed later, the same command
    // goes on, as the record and the hidden home stay.
    int restore() {
        const int code = enter_partners();
        if (code == kExitTryAgain) return code;
        run_in(session_, domain_, [&](int domain, Report&) { show_home(domain, home_); });
        restored_ = true;
        return code;
    }
    bool restored() const { return restored_; }

  private:
    static Place domain_of(const TSMailUserId& id) {
        try {
            return place_at(id.fname(MUF_HOME_PARENT));
        } catch (const Failure& failure) {
            if (failure.error() != ENOENT) throw;
            throw Failure(kExitNoUser, printable(id.domain()) + ": there is no such domain");
        }
    }

    PartnerEntries recorded() {
        PartnerEntries entries;
        run_in(
            session_, domain_,
            [&](int domain, Report& report) {
                for (const auto& [partner, list] : recorded_lists(domain, home_)) {
                    report.object({{"partner", partner}, {"list", list}});
                }
            },
            [&](const Json& entry) {
                entries.push_back(
                    {entry.at("partner").get<string>(), entry.at("list").get<string>(), 0});
            });
        std::erase_if(entries, [](const PartnerEntry& entry) {
            return entry.list != names::kPrimaryAddresses &&
                   entry.list != names::kSecondaryAddresses;
        });
        return entries;
    }

    int enter_partners() {
        const string address = id_.address(true);
        return run_on_partners(
            session_, homes_, recorded(), "; it is not entered into this mailbox's list again",
            [&](const PartnerEntry&, const AddressList& list, Report& report) {
                if (list.add(address) != AddressList::Added::full) return;
                report.error(Failure(kExitCannotCreate,
                                     fmt::format("{}: the list is full; {} is not entered",
                                                 printable(list.path()), printable(address))));
            });
    }

    Session& session_;
    const TSMailUserId& id_;
    Homes homes_;
    const Place domain_;
    const HiddenHome home_;
    Json deed_;
    bool restored_ = false;
};

int run_mailbox_restore(Session& session, const Arguments& arguments) {
    const TSMailUserId id = exact_mailbox_of(arguments.address);
    MailboxRestoration restoration(session, id);
    int code = restoration.look(arguments.dry_run);
    if (code != kExitOk) return code;
    if (!arguments.dry_run) {
        code = restoration.restore();
        if (!restoration.restored()) return code;
    }
    show_deed(session, restoration.deed());
    tell_daemon(id.mailpath(), restoration.deed());
    return code;
}

void declare_mailbox_restore(Verb& verb, Arguments& arguments) {
    verb.address(arguments.address);
    declare_dry_run(verb, arguments.dry_run);
}

}  // namespace

void add_mailbox_restore(const VerbGroup& group) {
    group.verb("restore", "Bring back a mailbox that was scheduled for removal",
               declare_mailbox_restore, run_mailbox_restore);
}

void add_mailbox_group(const VerbGroup& top) {
    const VerbGroup group = top.group("mailbox", "Whole mailboxes");
    add_mailbox_remove(group);
    add_mailbox_restore(group);
    add_mailbox_rename(group);
}

}  // namespace Tessaly::tool
