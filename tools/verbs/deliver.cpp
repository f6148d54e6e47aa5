// deliver - puts messages into a mailbox.
#include <algorithm>

#include "tools/cli/address.h"
#include "tools/cli/input.h"
#include "tools/cli/text.h"
#include "tools/spool/mailbox_job.h"
#include "tools/spool/new_home.h"
#include "tools/verbs/verbs.h"
#include "tools/work/delivery.h"
#include "tools/work/mbox.h"
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
    bool new_folders = false;
    bool refuse_exceeded = false;
    bool defer_exceeded = false;
    bool dry_run = false;
};

// ---- as the mailbox's owner

void refuse_mbox(const Input& input) {
    if (!holds_several_messages(input.fd)) return;
    throw Failure(
        kExitData,
        "it holds several messages, and deliver stores one; \"tsmail import\" stores each");
}

// ---- in the parent

// A stranger chooses the tag, the operator the option: so only the latter makes folders by default.
bool may_make_folder(const Arguments& arguments) {
    if (arguments.new_folders && arguments.no_new_folder) {
        throw Failure(kExitUsage, "give --new-folders or --no-new-folder, not both");
    }
    return arguments.folder ? !arguments.no_new_folder : arguments.new_folders;
}

DeliveryPlan plan_of(const Session& session, const Arguments& arguments) {
    const TSMailUserId id = mailbox_of(arguments.address);
    if (arguments.folder) check_folder_name(*arguments.folder);
    if (arguments.queue_id) check_queue_id(*arguments.queue_id);
    return {id,
            arguments.folder,
            arguments.queue_id.value_or(own_queue_id()),
            session.callers_umask,
            arguments.create,
            may_make_folder(arguments),
            answer_over_quota(arguments.refuse_exceeded, arguments.defer_exceeded)};
}

Owner owner_for(Session& session, const DeliveryPlan& plan) {
    try {
        return plan.may_make_mailbox ? owner_of_made_mailbox(session, plan.id, {})
                                     : Homes().owner(plan.id);
    } catch (const Failure& failure) {
        throw for_queue(explained(failure, plan.id.mailpath()));
    }
}

// Writes at once: a caller that has read this line need not deliver the message again.
void write_out(Session& session) {
    if (!session.out.finish()) session.warn("standard output: " + error_text(errno));
}

// The messages: files, or standard input.
class Messages {
  public:
    // A Failure with kExitUsage if standard input is to be read twice.
    explicit Messages(const std::vector<string>& files) : files_(files) {
        if (std::count(files.begin(), files.end(), kStandardInput) < 2) return;
        throw Failure(kExitUsage, "standard input (-) can be given once");
    }

    std::size_t count() const { return std::max<std::size_t>(files_.size(), 1); }
    bool is_file(std::size_t n) const { return !files_.empty() && files_[n] != kStandardInput; }
    // In the parent: opens message n with the caller's rights.
    Fd open(std::size_t n) const {
        return is_file(n) ? std::move(open_input(files_[n]).owned) : Fd();
    }
    // In the worker: the input that the parent opened.
    Input opened(std::size_t n, int fd) const {
        return is_file(n) ? Input{Fd(), fd, printable(files_[n])} : open_input("");
    }
    // The text of a failure, with the file in front of it.
    string failed(std::size_t n, const string& text) const {
        const string name = is_file(n) ? printable(files_[n]) + ": " : "";
        return text.starts_with(name) ? text : name + text;
    }
    // An object about message n: that and what comes of it.
    Json object(std::size_t n, const Json& outcome) const {
        Json object = Json::object();
        if (!files_.empty()) object["file"] = files_[n];
        object.update(outcome);
        return object;
    }

  private:
    static constexpr char kStandardInput[] = "-";
    const std::vector<string>& files_;
};

// Failures name the message; as JSON they are shown among the results, too.
void show_failures(Job& job, Session& session, const Messages& messages) {
    job.failed = [&](std::size_t n, const string& text) { return messages.failed(n, text); };
    if (!session.json) return;
    job.show_failure = [&](std::size_t n, const string& text, int code) {
        session.out.object(messages.object(n, {{"error", text}, {"code", code}}));
        write_out(session);
    };
}

// ---- a dry run

// Nothing if a delivery would make the mailbox.
std::optional<Owner> owner_if_any(const DeliveryPlan& plan) {
    try {
        return Homes().owner(plan.id);
    } catch (const Failure& failure) {
        if (failure.code() == kExitNoUser && plan.may_make_mailbox) return std::nullopt;
        throw for_queue(explained(failure, plan.id.mailpath()));
    }
}

void show_planned(Session& session, const DeliveryPlan& plan, const Json& object) {
    if (session.json) return session.out.object(object);
    const auto folder = object.at("folder").get<string>();
    session.out.line("would be delivered into " + printable(plan.id.mailfolder(folder)));
}

Json planned(const string& folder) { return {{"folder", folder}, {"done", false}}; }

// Standard input is not read.
int look(Session& session, const DeliveryPlan& plan, const Messages& messages) {
    const std::optional<Owner> owner = owner_if_any(plan);
    Job job;
    job.count = messages.count();
    job.owner = [&](std::size_t n) {
        if (owner) return owner;
        messages.open(n);  // a Failure if that is not possible
        const Json object = planned(planned_folder_of_new_mailbox(plan));
        show_planned(session, plan, messages.object(n, object));
        return owner;
    };
    job.input = [&](std::size_t n) { return messages.open(n); };
    job.work = [&](std::size_t n, int input, Report& report) {
        if (messages.is_file(n)) refuse_mbox(messages.opened(n, input));
        report.object(planned(planned_folder(plan)));
        return kExitOk;
    };
    job.show = [&](std::size_t n, const Json& object) {
        show_planned(session, plan, messages.object(n, object));
    };
    show_failures(job, session, messages);
    return run_job(session, job).code;
}

int run_deliver(Session& session, const Arguments& arguments) {
    const DeliveryPlan plan = plan_of(session, arguments);
    const Messages messages(arguments.files);
    if (arguments.dry_run) return look(session, plan, messages);
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
        const Input opened = messages.opened(n, input);
        if (messages.is_file(n)) refuse_mbox(opened);
        deliver(plan, opened, SignalHold(), report);
        return kExitOk;
    };
    show_failures(job, session, messages);
    job.show = [&](std::size_t n, const Json& delivered) {
        if (session.json) {
            session.out.object(messages.object(n, delivered));
        } else {
            session.out.line(printable(delivered.at("path").get<string>()));
        }
        write_out(session);
        daemon.tell(plan.id.mailfolder(delivered.at("folder").get<string>()),
                    delivered.at("size").get<long long>());
    };
    job.after_kill = [&](std::size_t) { mark_for_recount(plan.id); };
    return run_job(session, job).code;
}

void declare_deliver(Verb& verb, Arguments& arguments) {
    verb.address(arguments.address)
        .texts("FILE", arguments.files, "Messages to deliver, - for standard input (default)")
        .text("--folder", arguments.folder,
              "The folder, as Work/2024 (default: the address's tag, else Inbox)")
        .text("--queue-id", arguments.queue_id, "The mail queue's name for the message")
        .flag("--create", arguments.create, "Create the mailbox if there is none")
        .flag("--new-folders", arguments.new_folders,
              "Make the folder of a tag if it is missing (default: deliver to Inbox)")
        .flag("--no-new-folder", arguments.no_new_folder,
              "Deliver to Inbox if the folder of --folder is missing (default: make it)")
        .flag("--refuse-exceeded", arguments.refuse_exceeded,
              "Refuse messages for a mailbox over its quota (exit code 69)")
        .flag("--defer-exceeded", arguments.defer_exceeded, "Put them off (exit code 75)")
        .flag("--dry-run", arguments.dry_run, "Only say into which folder");
}

}  // namespace

void add_deliver_verb(const VerbGroup& top) {
    top.verb("deliver", "Deliver messages into a mailbox", declare_deliver, run_deliver);
}

}  // namespace Tessaly::tool
