#include "tools/spool/mailbox_job.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "tools/cli/address.h"
#include "tools/cli/text.h"
#include "tools/work/records.h"

namespace Tessaly::tool {

namespace {

using std::string;

Failure no_mailbox(const TSMailUserId& id) {
    return {kExitNoUser, printable(id.address(true)) + ": there is no such mailbox", ENOENT};
}

// Whether the entry of a domain's directory may be a home: it has a maildir root, or this process
// cannot find out.
bool may_be_home(const Place& domain, const string& name) {
    struct stat st;
    const string root = name + "/mail";
    if (::fstatat(domain.fd.get(), root.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) return true;
    return errno != ENOENT && errno != ENOTDIR;
}

// The mailbox whose home this directory would be; nothing if no mailbox can have this name.
std::optional<TSMailUserId> mailbox_named(const string& home) {
    try {
        TSMailUserId id = mailbox_of(home.substr(home.rfind('/') + 1));
        if (id.homepath() == home) return id;
    } catch (const Failure&) {
        return std::nullopt;
    }
    return std::nullopt;
}

void add_mailboxes_of(const Place& domain, Mailboxes& mailboxes) {
    for (const string& name : names_in(domain)) {
        if (tsm_is_deleted_user_path(name.c_str()) != 0) continue;
        if (!may_be_home(domain, name)) continue;
        const string home = domain.path + '/' + name;
        if (const auto id = mailbox_named(home)) {
            mailboxes.ids.push_back(*id);
        } else if (name.front() != '.') {
            mailboxes.not_addresses.push_back(home);
        }
    }
}

// Domains are directories or links to directories; other files beside them are skipped.
void add_domain(const Place& homes, const string& name, Mailboxes& mailboxes) {
    try {
        add_mailboxes_of(step(homes, name), mailboxes);
    } catch (const Failure& failure) {
        if (failure.error() != ENOTDIR && failure.error() != ENOENT) {
            mailboxes.unread.push_back(failure);
        }
    }
}

// The directory of all homes; nothing if no mailbox was ever made.
std::optional<Place> homes_directory() {
    try {
        return place_at(TSMailUserId::MAIL_PATH_PREFIX);
    } catch (const Failure& failure) {
        if (failure.error() == ENOENT) return std::nullopt;
        throw;
    }
}

Place place_of_domain(const string& given) {
    return place_at(TSMailUserId::MAIL_PATH_PREFIX + '/' + mailbox_of("any@" + given).domain());
}

Mailboxes mailboxes_of_domain(const string& given) {
    Mailboxes mailboxes;
    mailboxes.all = true;
    try {
        add_mailboxes_of(place_of_domain(given), mailboxes);
    } catch (const Failure& failure) {
        if (failure.error() != ENOENT && failure.error() != ENOTDIR) throw;
        throw Failure(kExitData, printable(given) + ": there is no such domain");
    }
    return mailboxes;
}

void say_unread(const Session& session, const Mailboxes& mailboxes, JobResult& result) {
    for (const Failure& failure : mailboxes.unread) {
        session.error(failure.what());
        result.code = std::max(result.code, int{failure.code()});
    }
}

}  // namespace

const Place& Homes::domain(const TSMailUserId& id) {
    if (!domain_ || domain_name_ != id.domain()) {
        domain_ = place_at(id.fname(MUF_HOME_PARENT));
        domain_name_ = id.domain();
    }
    return *domain_;
}

Place Homes::home(const TSMailUserId& id) {
    try {
        return step(domain(id), id.tilde_name());
    } catch (const Failure& failure) {
        if (failure.error() == ENOENT || failure.error() == ENOTDIR) throw no_mailbox(id);
        throw;
    }
}

Owner Homes::owner(const TSMailUserId& id) {
    const Place place = home(id);
    struct stat st;
    if (::fstatat(place.fd.get(), "mail", &st, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT) throw no_mailbox(id);
        throw system_failure(printable(id.mailpath()));
    }
    if (place.owner == 0) return owner_of_mailbox(place);
    const std::pair user(place.owner, place.group);
    const auto known = users_.find(user);
    if (known != users_.end()) return known->second;
    return users_[user] = owner_of_mailbox(place);
}

Mailboxes one_mailbox(const string& address) {
    Mailboxes mailboxes;
    mailboxes.ids.push_back(exact_mailbox_of(address));
    return mailboxes;
}

Mailboxes every_mailbox(const std::optional<string>& domain) {
    if (domain) return mailboxes_of_domain(*domain);
    Mailboxes mailboxes;
    mailboxes.all = true;
    if (const auto homes = homes_directory()) {
        for (const string& name : names_in(*homes)) add_domain(*homes, name, mailboxes);
    }
    return mailboxes;
}

void check_choice(const Choice& choice) {
    const int given = (choice.address ? 1 : 0) + (choice.all ? 1 : 0) + (choice.domain ? 1 : 0);
    if (given != 1) throw Failure(kExitUsage, "give an address, or --all, or --domain");
}

Mailboxes mailboxes_of(const Choice& choice) {
    check_choice(choice);
    return choice.address ? one_mailbox(*choice.address) : every_mailbox(choice.domain);
}

std::vector<Place> domains_of(const Choice& choice) {
    std::vector<Place> domains;
    const auto add = [&](const std::function<Place()>& find) {
        try {
            domains.push_back(find());
        } catch (const Failure&) {
            return;
        }
    };
    if (choice.address)
        add([&] { return place_at(mailbox_of(*choice.address).fname(MUF_HOME_PARENT)); });
    if (choice.domain) add([&] { return place_of_domain(*choice.domain); });
    if (!choice.all) return domains;
    if (const auto homes = homes_directory()) {
        for (const string& name : names_in(*homes)) add([&] { return step(*homes, name); });
    }
    return domains;
}

JobResult run_quietly_on(Session& session, const Mailboxes& mailboxes, const MailboxJob& work) {
    const auto& ids = mailboxes.ids;
    Homes homes;
    Job job;
    job.count = ids.size();
    job.jobs = work.jobs;
    job.progress = work.progress;
    job.owner = [&](std::size_t n) -> std::optional<Owner> {
        try {
            return homes.owner(ids[n]);
        } catch (const Failure& failure) {
            if (mailboxes.all && failure.code() == kExitNoUser) return std::nullopt;
            throw;
        }
    };
    job.show = [&](std::size_t n, const Json& object) { work.show(ids[n], object); };
    if (mailboxes.all) {
        job.failed = [&](std::size_t n, const string& text) {
            return printable(ids[n].address(true)) + ": " + text;
        };
    }
    job.work = [&](std::size_t n, int, Report& report) { return work.work(ids[n], report); };
    if (work.changes_sizes) job.after_kill = [&](std::size_t n) { mark_for_recount(ids[n]); };
    JobResult result = run_job(session, job);
    say_unread(session, mailboxes, result);
    return result;
}

void show_left_out(Session& session, const JobResult& result) {
    if (session.json || result.left_out == 0) return;
    session.out.line(fmt::format("{} {} left out", result.left_out,
                                 result.left_out == 1 ? "mailbox was" : "mailboxes were"));
}

int run_on(Session& session, const Mailboxes& mailboxes, const MailboxJob& work) {
    const JobResult result = run_quietly_on(session, mailboxes, work);
    if (mailboxes.all) show_left_out(session, result);
    return result.code;
}

}  // namespace Tessaly::tool
