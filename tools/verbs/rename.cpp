// mailbox rename, domain rename - give mailboxes other addresses.
#include <fmt/format.h>

#include "tools/cli/address.h"
#include "tools/cli/text.h"
#include "tools/spool/directory_job.h"
#include "tools/spool/mailbox_job.h"
#include "tools/spool/new_home.h"
#include "tools/spool/renaming.h"
#include "tools/verbs/mailbox.h"
#include "tools/verbs/verbs.h"
#include "tools/work/quota_daemon.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct Arguments {
    string from, to;
    bool dry_run = false;
};

void show_renamed(Session& session, const string& from, const string& to, bool done) {
    if (session.json) return session.out.object({{"from", from}, {"to", to}, {"done", done}});
    session.out.line(fmt::format("{} {} to {}", done ? "renamed" : "would rename", printable(from),
                                 printable(to)));
}

// The daemon goes by paths: what was below the old one is below the new one.
void tell_of_renamings(const Renamings& all, const Holdings& held) {
    QuotaDaemon daemon;
    for (std::size_t n = 0; n < all.size(); ++n) {
        if (held[n] == 0) continue;
        daemon.tell(all[n].from.mailpath(), -held[n]);
        daemon.tell(all[n].to.mailpath(), held[n]);
    }
}

// ---- mailbox rename

class MailboxRenaming {
  public:
    MailboxRenaming(Session& session, Renaming mailbox)
        : session_(session), mailbox_(std::move(mailbox)) {
        Homes().owner(mailbox_.from);
    }

    void demand_free_name() const {
        const auto domain = place_if_any(mailbox_.to);
        if (domain) demand_free(*domain, mailbox_.to.tilde_name());
    }

    int run() {
        const Place to = domain_of_new_home(session_, mailbox_.to);
        const Place from = place_at(mailbox_.from.fname(MUF_HOME_PARENT));
        const int partners = rename_in_partners(session_, {mailbox_}, "");
        const int files = rename_files(session_, {mailbox_}, held_);
        if (files != kExitOk) return files;
        try {
            rename_home(session_, mailbox_, from, to);
        } catch (const Failure&) {
            take_back();
            throw;
        }
        renamed_ = true;
        tell_of_renamings({mailbox_}, held_);
        return partners;
    }
    bool renamed() const { return renamed_; }

  private:
    static std::optional<Place> place_if_any(const TSMailUserId& id) {
        try {
            return place_at(id.fname(MUF_HOME_PARENT));
        } catch (const Failure& failure) {
            if (failure.error() == ENOENT) return std::nullopt;
            throw;
        }
    }

    // The home has kept its name: files and lists get theirs again.
    void take_back() {
        rename_files(session_, {mailbox_}, held_, "", "", Way::back);
        rename_in_partners(session_, {mailbox_}, "", Way::back);
    }

    Session& session_;
    Renaming mailbox_;
    Holdings held_;
    bool renamed_ = false;
};

int run_mailbox_rename(Session& session, const Arguments& arguments) {
    const TSMailUserId from = exact_mailbox_of(arguments.from), to = exact_mailbox_of(arguments.to);
    if (from.tilde_name() == to.tilde_name()) {
        throw Failure(kExitData, printable(to.address(true)) + ": this is the same mailbox");
    }
    MailboxRenaming renaming(session, {from, to});
    renaming.demand_free_name();
    const int code = arguments.dry_run ? kExitOk : renaming.run();
    if (!arguments.dry_run && !renaming.renamed()) return code;
    show_renamed(session, from.address(true), to.address(true), !arguments.dry_run);
    return code;
}

// ---- domain rename

string domain_named(const string& given) { return mailbox_of("any@" + given).domain(); }

int run_domain_rename(Session& session, const Arguments& arguments) {
    const string from = domain_named(arguments.from), to = domain_named(arguments.to);
    if (from == to) throw Failure(kExitData, printable(to) + ": this is the same domain");
    const Mailboxes mailboxes = every_mailbox(from);
    const Place homes = place_at(TSMailUserId::MAIL_PATH_PREFIX);
    demand_free(homes, to);
    Renamings all;
    for (const TSMailUserId& id : mailboxes.ids) {
        all.push_back({id, TSMailUserId(id.local(true) + '@' + to)});
    }
    if (arguments.dry_run) {
        for (const auto& [old_id, new_id] : all) {
            show_renamed(session, old_id.address(true), new_id.address(true), false);
        }
        show_renamed(session, from, to, false);
        return kExitOk;
    }
    const int partners = rename_in_partners(session, all, from);
    Holdings held;
    const int files = rename_files(session, all, held, from, to);
    if (files != kExitOk) return files;
    rename_homes(session, step(homes, from), from, to);
    rename_domain(session, homes, from, to);
    tell_of_renamings(all, held);
    show_renamed(session, from, to, true);
    return partners;
}

void declare_mailbox_rename(Verb& verb, Arguments& arguments) {
    verb.text("OLD", arguments.from, "The mailbox, as ann@site.test").required();
    verb.text("NEW", arguments.to, "Its new address").required();
    verb.flag("--dry-run", arguments.dry_run, "Only say what would be renamed");
}

void declare_domain_rename(Verb& verb, Arguments& arguments) {
    verb.text("OLD", arguments.from, "The domain, as site.test").required();
    verb.text("NEW", arguments.to, "Its new name").required();
    verb.flag("--dry-run", arguments.dry_run, "Only say what would be renamed");
}

}  // namespace

void add_mailbox_rename(const VerbGroup& group) {
    group.verb("rename", "Give a mailbox another address", declare_mailbox_rename,
               run_mailbox_rename);
}

void add_domain_group(const VerbGroup& top) {
    top.group("domain", "Whole domains")
        .verb("rename", "Give a domain and its mailboxes another name", declare_domain_rename,
              run_domain_rename);
}

}  // namespace Tessaly::tool
