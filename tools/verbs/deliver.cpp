// deliver - puts messages into a mailbox.
#include <fmt/format.h>
#include <sys/random.h>

#include <algorithm>
#include <cstdlib>

#include "tools/cli/address.h"
#include "tools/cli/input.h"
#include "tools/cli/text.h"
#include "tools/spool/mailbox_job.h"
#include "tools/spool/new_home.h"
#include "tools/verbs/verbs.h"
#include "tools/work/delivery.h"
#include "tools/work/quota_daemon.h"
#include "tools/work/records.h"
#include "tools/work/signals.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct Arguments {
    string address;
    std::optional<string> folder;
    std::optional<string> queue_id;
    std::vector<string> files;
    bool create = false;
    bool no_new_folder = false;
};

// Message names contain numbers from the C library's generators, which the program has to seed.
void seed_random() {
    unsigned seeds[2] = {};
    if (::getrandom(seeds, sizeof seeds, 0) != static_cast<ssize_t>(sizeof seeds)) {
        throw system_failure("getrandom");
    }
    std::srand(seeds[0]);
    ::srandom(seeds[1]);
}

string own_queue_id() {
    char id[64];
    if (tsl_gen_queue_id(nullptr, id, sizeof id) == nullptr) {
        throw Failure(kExitSoftware, "no queue identifier");
    }
    return id;
}

// ---- as the mailbox's owner

// The settings that are the same for each message.
struct Plan {
    TSMailUserId id;
    std::optional<string> folder;
    string queue_id;
    mode_t callers_umask;
    bool may_make_mailbox;
    bool may_make_folder;
};

void deliver(const Plan& plan, const Input& input, Report& report) {
    const SignalHold signals;
    const FolderMaker maker(plan.callers_umask);
    if (!mailbox_exists(plan.id)) {
        if (!plan.may_make_mailbox) demand_mailbox(plan.id);
        maker.make_mailbox(plan.id);
    }
    const string folder = choose_folder(plan.id, plan.folder, plan.may_make_folder);
    Delivery delivery(plan.id, folder, maker, plan.may_make_folder);
    delivery.deliver(input, plan.queue_id, signals, report);
}

// ---- in the parent

Plan plan_of(const Session& session, const Arguments& arguments) {
    const TSMailUserId id = mailbox_of(arguments.address);
    if (arguments.folder) check_folder_name(*arguments.folder);
    if (arguments.queue_id) check_queue_id(*arguments.queue_id);
    return {id,
            arguments.folder,
            arguments.queue_id.value_or(own_queue_id()),
            session.callers_umask,
            arguments.create,
            !arguments.no_new_folder};
}

Owner owner_for(Session& session, const Plan& plan) {
    try {
        return plan.may_make_mailbox ? owner_of_made_mailbox(session, plan.id, {})
                                     : Homes().owner(plan.id);
    } catch (const Failure& failure) {
        throw for_queue(failure);
    }
}

void show(Session& session, const Json& delivered) {
    if (session.json) {
        session.out.object(delivered);
    } else {
        session.out.line(printable(delivered.at("path").get<string>()));
    }
    // Writes at once: a caller that has read this line need not deliver the message again.
    if (!session.out.finish()) session.warn("standard output: " + error_text(errno));
}

// The messages: files, or standard input.
class Messages {
  public:
    explicit Messages(const std::vector<string>& files) : files_(files) {}

    std::size_t count() const { return std::max<std::size_t>(files_.size(), 1); }
    // In the parent: opens message n with the caller's rights.
    Fd open(std::size_t n) const {
        return files_.empty() ? Fd() : std::move(open_input(files_[n]).owned);
    }
    // In the worker: the input that the parent opened.
    Input opened(std::size_t n, int fd) const {
        return files_.empty() ? open_input("") : Input{Fd(), fd, printable(files_[n])};
    }

  private:
    const std::vector<string>& files_;
};

int run_deliver(Session& session, const Arguments& arguments) {
    const Plan plan = plan_of(session, arguments);
    const Messages messages(arguments.files);
    const SignalHold signals;
    const Owner owner = owner_for(session, plan);
    QuotaDaemon daemon;
    seed_random();  // for the worker
    Job job;
    job.count = messages.count();
    job.signals = signals.fd();
    job.owner = [&](std::size_t) { return owner; };
    job.input = [&](std::size_t n) { return messages.open(n); };
    job.work = [&](std::size_t n, int input, Report& report) {
        try {
            deliver(plan, messages.opened(n, input), report);
        } catch (const Failure& failure) {
            report.error(for_queue(failure));
        }
        return kExitOk;
    };
    job.show = [&](std::size_t, const Json& delivered) {
        show(session, delivered);
        daemon.tell(plan.id.mailfolder(delivered.at("folder").get<string>()),
                    delivered.at("size").get<long long>());
    };
    job.after_kill = [&](std::size_t) { mark_for_recount(plan.id); };
    return run_job(session, job).code;
}

void declare_deliver(Verb& verb, Arguments& arguments) {
    verb.address(arguments.address)
        .texts("FILE", arguments.files, "Messages to deliver (default: standard input)")
        .text("--folder", arguments.folder,
              "The folder, as Work/2024 (default: the address's tag, else Inbox)")
        .text("--queue-id", arguments.queue_id, "The mail queue's name for the message")
        .flag("--create", arguments.create, "Create the mailbox if there is none")
        .flag("--no-new-folder", arguments.no_new_folder,
              "Deliver to Inbox if the folder is missing");
}

}  // namespace

void add_deliver_verb(const VerbGroup& top) {
    top.verb("deliver", "Deliver messages into a mailbox", declare_deliver, run_deliver);
}

}  // namespace Tessaly::tool
