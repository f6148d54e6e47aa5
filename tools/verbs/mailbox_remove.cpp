// mailbox remove - removes a mailbox, and its address from the address lists of its partners.
//
// Addresses of one person come in pairs of lists: each mailbox names the other one in the opposite
// list. Every step runs with the rights of the owner of the files that it changes: the mailbox's
// owner reads the lists and empties the home, each partner's owner edits that partner's list, and
// the owner of the domain's directory removes the empty home.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <tessaly/maillist.h>
#include <unistd.h>

#include <functional>

#include "base/store_names.h"
#include "tools/cli/address.h"
#include "tools/cli/text.h"
#include "tools/spool/mailbox_job.h"
#include "tools/verbs/removal.h"
#include "tools/verbs/verbs.h"
#include "tools/work/address_list.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct Arguments {
    string address;
    bool yes = false;
    bool dry_run = false;
};

// A list of the user, and the partner's list that should name the user in return.
struct Relation {
    std::string_view own, partners;
};
constexpr Relation kRelations[] = {
    {names::kPrimaryAddresses, names::kSecondaryAddresses},
    {names::kSecondaryAddresses, names::kPrimaryAddresses},
};

// An entry of one of the user's lists. It is untrusted: users can write anything into their lists.
struct Entry {
    string partner;
    string list;  // the partner's list that may name the user
};

// ---- as the mailbox's owner

std::vector<string> lines_of(const AddressList& list, Report& report) {
    try {
        return list.lines();
    } catch (const Failure& failure) {
        if (failure.code() != kExitNoInput) report.warn(failure.what());
        return {};
    }
}

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

int look(const TSMailUserId& id, bool dry_run, Report& report) {
    report_deed(report, kRemove, id.homepath(), amount_below(id.homepath()), dry_run);
    if (!dry_run) report.object({{"entries", entries_of(id, report)}});
    return kExitOk;
}

// ---- in the parent

class MailboxRemoval {
  public:
    MailboxRemoval(Session& session, TSMailUserId id)
        : session_(session), id_(std::move(id)), owner_(owner_of_mailbox(homes_.home(id_))) {}

    // Learns what is below the home and whom its lists name. Returns the exit code.
    int look_at_home(bool dry_run) {
        return run_as(
            owner_, [=, this](Report& report) { return look(id_, dry_run, report); },
            [&](const Json& object) {
                if (object.contains("entries")) {
                    take_entries(object["entries"]);
                } else {
                    deed_ = object;
                }
            });
    }
    const Json& deed() const { return deed_; }

    // Removes the mailbox even if a partner's list cannot be changed.
    int remove() {
        const int partners = leave_partners();
        int code = empty_home();
        if (code == kExitOk) code = take_out_of_domain();
        removed_ = code == kExitOk;
        return removed_ ? partners : code;
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

    void take_entries(const Json& entries) {
        for (const Json& entry : entries) {
            entries_.push_back({entry.at(0).get<string>(), entry.at(1).get<string>()});
        }
    }

    // The owner of the partner that an entry names; nothing if there is no such mailbox.
    std::optional<Owner> owner_of_partner(const Entry& entry) {
        try {
            return homes_.owner(mailbox_of(entry.partner));
        } catch (const Failure& failure) {
            if (failure.code() == kExitNoUser) return std::nullopt;
            session_.warn(string(failure.what()) + "; this entry of " +
                          printable(id_.address(true)) + " is left alone");
            return std::nullopt;
        }
    }

    // Removes the user's address from each partner's list. A failure does not prevent the others.
    int leave_partners() {
        Job job;
        job.count = entries_.size();
        job.owner = [&](std::size_t n) { return owner_of_partner(entries_[n]); };
        job.work = [&](std::size_t n, int, Report&) {
            const AddressList list(entries_[n].partner, entries_[n].list, MAIL_LIST_USER);
            if (list.exists()) list.remove(id_.address(true));
            return kExitOk;
        };
        return run_job(session_, job).code;
    }

    int empty_home() {
        return run_as(owner_, [this](Report&) {
            clean_directory(id_.homepath());
            return kExitOk;
        });
    }

    int take_out_of_domain() {
        const string path = id_.fname(MUF_HOME_PARENT);
        return run_as(owner_of(place_at(path)), [&](Report&) {
            const Fd domain(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
            if (!domain) throw system_failure(printable(path));
            remove_entry(domain.get());
            return kExitOk;
        });
    }

    // Removes the home, which is empty, or the link to it.
    void remove_entry(int domain) const {
        const string name = id_.tilde_name();
        struct stat st;
        if (::fstatat(domain, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
            const int flags = S_ISDIR(st.st_mode) ? AT_REMOVEDIR : 0;
            if (::unlinkat(domain, name.c_str(), flags) == 0) return;
        }
        if (errno != ENOENT) throw system_failure(printable(id_.homepath()));
    }

    Session& session_;
    TSMailUserId id_;
    Homes homes_;
    Owner owner_;
    Json deed_;
    std::vector<Entry> entries_;
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
    const TSMailUserId id = mailbox_of(arguments.address);
    MailboxRemoval removal(session, id);
    int code = removal.look_at_home(arguments.dry_run);
    if (code != kExitOk) return code;
    if (!arguments.dry_run) {
        if (!arguments.yes && !agreed(session, id, removal.deed())) {
            throw Failure(kExitUsage, "nothing was removed");
        }
        code = removal.remove();
        if (!removal.removed()) return code;
    }
    show_deed(session, removal.deed());
    tell_daemon(id.mailpath(), removal.deed());
    return code;
}

void declare_mailbox_remove(Verb& verb, Arguments& arguments) {
    verb.address(arguments.address).flag("--yes", arguments.yes, "Do not ask");
    declare_dry_run(verb, arguments.dry_run);
}

}  // namespace

void add_mailbox_remove_verb(const VerbGroup& top) {
    top.group("mailbox", "Whole mailboxes")
        .verb("remove", "Remove a mailbox with all that belongs to it", declare_mailbox_remove,
              run_mailbox_remove);
}

}  // namespace Tessaly::tool
