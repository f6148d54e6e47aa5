// mailbox remove - removes a mailbox, and its address from the address lists of its partners.
//
// Every step runs with the rights of the owner of the files that it changes: the mailbox's owner
// reads the lists and empties the home, each partner's owner edits that partner's list, and the
// owner of the domain's directory hides the home, or removes the empty one.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <functional>

#include "tools/cli/address.h"
#include "tools/cli/text.h"
#include "tools/spool/directory_job.h"
#include "tools/spool/hidden_home.h"
#include "tools/spool/partners.h"
#include "tools/verbs/mailbox.h"
#include "tools/verbs/removal.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct Arguments {
    string address;
    bool yes = false;
    bool now = false;
    bool dry_run = false;
};

// As the mailbox's owner.
int look(const TSMailUserId& id, const Deed& deed, bool dry_run, Report& report) {
    report_deed(report, deed, id.homepath(), amount_below(id.homepath()), dry_run);
    if (!dry_run) report.object({{"entries", entries_of(id, report)}});
    return kExitOk;
}

class MailboxRemoval {
  public:
    MailboxRemoval(Session& session, TSMailUserId id)
        : session_(session), id_(std::move(id)), owner_(owner_of_mailbox(homes_.home(id_))) {}

    // Learns what is below the home and whom its lists name. Returns the exit code.
    int look_at_home(const Deed& deed, bool dry_run) {
        return run_as(
            owner_, [&, dry_run](Report& report) { return look(id_, deed, dry_run, report); },
            [&](const Json& object) {
                if (object.contains("entries")) {
                    entries_ = entries_in(object["entries"]);
                } else {
                    deed_ = object;
                }
            });
    }
    const Json& deed() const { return deed_; }

    // These two take the mailbox away even if a partner's list cannot be changed.
    int remove() {
        const int partners = leave_partners(entries_);
        const int code = empty_home();
        if (code != kExitOk) return code;
        take_out_of_domain();
        removed_ = true;
        return partners;
    }
    // What is recorded before the home is hidden is what a restore enters again.
    int schedule() {
        PartnerEntries naming;
        const int asked = find_partners(naming);
        hide(naming);
        removed_ = true;
        return std::max(asked, leave_partners(naming));
    }
    bool removed() const { return removed_; }

  private:
    int run_as(const Owner& owner, const std::function<int(Report&)>& work,
               const std::function<void(const Json&)>& take = {}) {
        Job job;
        job.owner = [&](std::size_t) { return owner; };
        job.work = [&](std::size_t, int, Report& report) { return work(report); };
        job.show = [&](std::size_t, const Json& object) { take(object); };
        return run_job(session_, job).code;
    }

    // Finds the partners whose lists name the mailbox.
    int find_partners(PartnerEntries& naming) {
        const string address = id_.address(true);
        return run_on_partners(
            session_, homes_, entries_, "",
            [&](const PartnerEntry&, const AddressList& list, Report& report) {
                if (!list.exists()) return;
                const std::vector<string> lines = list.lines();
                if (std::find(lines.begin(), lines.end(), address) != lines.end()) {
                    report.object(Json::object());
                }
            },
            [&](const PartnerEntry& entry) { naming.push_back(entry); });
    }

    // Removes the user's address from each partner's list.
    int leave_partners(const PartnerEntries& entries) {
        const string address = id_.address(true);
        return run_on_partners(session_, homes_, entries, "",
                               [&](const PartnerEntry&, const AddressList& list, Report&) {
                                   if (list.exists()) list.remove(address);
                               });
    }

    int empty_home() {
        return run_as(owner_, [this](Report&) {
            clean_directory(id_.homepath());
            return kExitOk;
        });
    }

    // Removes the home, which is empty, or the link to it.
    void take_out_of_domain() {
        const HiddenHome home{id_, id_.tilde_name(), false};
        run_in(session_, place_at(id_.fname(MUF_HOME_PARENT)),
               [&](int domain, Report&) { remove_home(domain, home); });
    }

    void hide(const PartnerEntries& naming) {
        PartnerLists lists;
        for (const PartnerEntry& entry : naming) lists.emplace_back(entry.partner, entry.list);
        run_in(session_, place_at(id_.fname(MUF_HOME_PARENT)),
               [&](int domain, Report&) { hide_home(domain, id_, lists); });
    }

    Session& session_;
    TSMailUserId id_;
    Homes homes_;
    Owner owner_;
    Json deed_;
    PartnerEntries entries_;
    bool removed_ = false;
};

// Reads a line from the terminal, without its line end.
string answer() {
    string line;
    char c = 0;
    while (retry([&] { return ::read(STDIN_FILENO, &c, 1); }) == 1 && c != '\n') line += c;
    return line;
}

bool agreed(const Session& session, const TSMailUserId& id, const Json& deed) {
    if (::isatty(STDIN_FILENO) == 0) {
        throw Failure(kExitUsage, "nobody can be asked here: to remove a mailbox needs --yes");
    }
    session.error(fmt::format("{} has {}. Remove all of it? [y/N]", printable(id.address(true)),
                              amount_text(amount_of(deed))));
    const string given = folded(answer());
    return given == "y" || given == "yes";
}

int run_mailbox_remove(Session& session, const Arguments& arguments) {
    const TSMailUserId id = exact_mailbox_of(arguments.address);
    MailboxRemoval removal(session, id);
    int code = removal.look_at_home(arguments.now ? kRemove : kSchedule, arguments.dry_run);
    if (code != kExitOk) return code;
    if (!arguments.dry_run) {
        if (!arguments.yes && !agreed(session, id, removal.deed())) {
            throw Failure(kExitUsage, "nothing was removed");
        }
        code = arguments.now ? removal.remove() : removal.schedule();
        if (!removal.removed()) return code;
    }
    show_deed(session, removal.deed());
    tell_daemon(id.mailpath(), removal.deed());
    return code;
}

void declare_mailbox_remove(Verb& verb, Arguments& arguments) {
    verb.address(arguments.address)
        .flag("--yes", arguments.yes, "Do not ask")
        .flag("--now", arguments.now, "Remove it at once (default: at the next sweep)");
    declare_dry_run(verb, arguments.dry_run);
}

}  // namespace

void add_mailbox_remove(const VerbGroup& group) {
    group.verb("remove", "Remove a mailbox with all that belongs to it", declare_mailbox_remove,
               run_mailbox_remove);
}

}  // namespace Tessaly::tool
