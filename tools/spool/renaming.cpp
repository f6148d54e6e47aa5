#include "tools/spool/renaming.h"

#include <fcntl.h>
#include <unistd.h>

#include "tools/cli/address.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/spool/directory_job.h"
#include "tools/spool/hidden_home.h"
#include "tools/spool/mailbox_job.h"
#include "tools/spool/partners.h"
#include "tools/work/hidden_name.h"
#include "tools/work/own_names.h"
#include "tools/work/size_file.h"

namespace Tessaly::tool {

namespace {

using std::string;

// A job with a task for each mailbox, as its owner.
Job job_over(const Renamings& all, Homes& homes) {
    Job job;
    job.count = all.size();
    job.owner = [&](std::size_t n) { return homes.owner(all[n].from); };
    if (all.size() > 1) {
        job.failed = [&](std::size_t n, const string& text) {
            return printable(all[n].from.address(true)) + ": " + text;
        };
    }
    return job;
}

Renaming turned(const Renaming& mailbox, Way way) {
    return way == Way::there ? mailbox : Renaming{mailbox.to, mailbox.from};
}

bool is_in_domain(const string& address, const string& domain) {
    return !domain.empty() && address.ends_with('@' + domain);
}

// The name of a home, or of a hidden one, or of its record, in another domain; "" if it is not of
// the domain `from`.
string in_other_domain(const string& name, const string& from, const string& to) {
    const string tail = '~' + from;
    if (!name.starts_with('.') && name.ends_with(tail)) {
        return name.substr(0, name.size() - from.size()) + to;
    }
    const auto hidden = hidden_name_in(name_of_home(name));
    if (!hidden || !hidden->base.ends_with(tail)) return "";
    const auto at = name.find(hidden->base) + hidden->base.size() - from.size();
    return name.substr(0, at) + to + name.substr(at + from.size());
}

long long stored_bytes(const TSMailUserId& id) {
    return shown(stored_totals(mailbox_size_file(id)).value_or(Totals())).size;
}

}  // namespace

int rename_in_partners(Session& session, const Renamings& all, const string& within, Way way) {
    PartnerEntries entries;
    Homes homes;
    Job job = job_over(all, homes);
    job.work = [&](std::size_t n, int, Report& report) {
        report.object({{"entries", entries_of(all[n].from, report)}});
        return kExitOk;
    };
    job.show = [&](std::size_t n, const Json& object) {
        for (PartnerEntry& entry : entries_in(object.at("entries"))) {
            if (is_in_domain(entry.partner, within)) continue;
            entry.of = n;
            entries.push_back(std::move(entry));
        }
    };
    const int read = run_job(session, job).code;
    if (read != kExitOk) return read;
    return run_on_partners(session, homes, entries, "",
                           [&](const PartnerEntry& entry, const AddressList& list, Report&) {
                               const Renaming ids = turned(all[entry.of], way);
                               replace_address(list, ids.from.address(true), ids.to.address(true));
                           });
}

int rename_files(Session& session, const Renamings& all, Holdings& held, const string& from,
                 const string& to, Way way) {
    Homes homes;
    Job job = job_over(all, homes);
    job.progress = all.size() > 1 ? "renaming mailboxes" : "";
    held.assign(all.size(), 0);
    job.work = [&](std::size_t n, int, Report& report) {
        report.object({{"bytes", stored_bytes(all[n].from)}});
        if (!from.empty()) rename_domain_in_lists(all[n].from, from, to);
        const Renaming ids = turned(all[n], way);
        rename_own_files(all[n].from, ids.from, ids.to);
        return kExitOk;
    };
    job.show = [&](std::size_t n, const Json& object) {
        held[n] = object.at("bytes").get<long long>();
    };
    return run_job(session, job).code;
}

void rename_home(Session& session, const Renaming& mailbox, const Place& from, const Place& to) {
    if (!(owner_of(from) == owner_of(to))) {
        throw Failure(kExitCannotCreate, printable(from.path) + " and " + printable(to.path) +
                                             " belong to different users; give them to one");
    }
    const string old_name = mailbox.from.tilde_name(), new_name = mailbox.to.tilde_name();
    run_in(session, from, [&](int directory, Report&) {
        constexpr int kToWorkIn = O_PATH | O_DIRECTORY | O_CLOEXEC;
        const Fd other(retry([&] { return ::open(to.path.c_str(), kToWorkIn); }));
        if (!other) throw system_failure(printable(to.path));
        if (!move_between(directory, old_name, other.get(), new_name)) {
            if (errno == EEXIST) throw name_taken(mailbox.to.homepath());
            throw system_failure(printable(mailbox.to.homepath()));
        }
        flush_directory(other.get(), to.path);
        flush_directory(directory, from.path);
    });
}

void rename_homes(Session& session, const Place& directory, const string& from, const string& to) {
    std::vector<std::pair<string, string>> names;
    for (const string& name : names_in(directory)) {
        string other = in_other_domain(name, from, to);
        if (!other.empty()) names.emplace_back(name, std::move(other));
    }
    run_in(session, directory, [&](int fd, Report&) {
        for (const auto& [name, other] : names) {
            if (move_within(fd, name, other) || errno == ENOENT) continue;
            throw system_failure(printable(directory.path + '/' + other));
        }
        flush_directory(fd, directory.path);
    });
}

void rename_domain(Session& session, const Place& homes, const string& from, const string& to) {
    run_in(session, homes, [&](int directory, Report&) {
        if (!move_within(directory, from, to)) {
            if (errno == EEXIST) throw name_taken(homes.path + '/' + to);
            throw system_failure(printable(homes.path + '/' + to));
        }
        flush_directory(directory, homes.path);
    });
}

}  // namespace Tessaly::tool
