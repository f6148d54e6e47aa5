// deliver - puts messages into a mailbox.
#include <fmt/format.h>
#include <sys/random.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdlib>

#include "tools/cli/address.h"
#include "tools/cli/input.h"
#include "tools/cli/text.h"
#include "tools/spool/identity.h"
#include "tools/verbs/verbs.h"
#include "tools/work/delivery.h"
#include "tools/work/quota_daemon.h"

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

// Message names hold numbers of the C library's generators, which the program has to seed.
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

// Everything about the mailbox that is the same for each message.
struct Target {
    TSMailUserId id;
    string folder;
    string queue_id;
    FolderMaker maker;
    bool may_make;
};

Target target_of(const Session& session, const Arguments& arguments) {
    const TSMailUserId id = mailbox_of(arguments.address);
    if (arguments.folder) check_folder_name(*arguments.folder);
    if (arguments.queue_id) check_queue_id(*arguments.queue_id);
    const FolderMaker maker(session.callers_umask);
    if (!mailbox_exists(id)) {
        if (!arguments.create) demand_mailbox(id);
        maker.make_mailbox(id);
    }
    const AsOwner owner(session, id);
    return {id, choose_folder(id, arguments.folder, !arguments.no_new_folder),
            arguments.queue_id.value_or(own_queue_id()), maker, !arguments.no_new_folder};
}

void show(Session& session, const Delivered& delivered) {
    const auto& [folder, path, size, shortfall] = delivered;
    if (session.json) {
        session.out.object(Json{{"path", path}, {"folder", folder}, {"size", size}});
    } else {
        session.out.line(path);
    }
    // At once: who is told of a message need not deliver it again.
    if (!session.out.finish()) session.warn("standard output: " + error_text(errno));
    if (shortfall.not_synced)
        session.warn(path + " was delivered, but may not survive a crash yet");
    if (shortfall.folder_not_counted)
        session.warn(path + " is missing in its folder's size record");
    if (shortfall.mailbox_not_counted)
        session.warn(path + " is missing in the mailbox's size record");
}

// One message. When it stands in the folder the answer is success, whatever comes after.
int deliver_one(Session& session, const Target& target, const string& file,
                const SignalHold& signals, QuotaDaemon& daemon) {
    try {
        const Input input = open_input(file);
        const AsOwner owner(session, target.id);
        Delivery delivery(target.id, target.folder, target.maker, target.may_make);
        const Delivered delivered = delivery.deliver(input, target.queue_id, signals);
        show(session, delivered);
        daemon.tell(target.id.mailfolder(delivered.folder), static_cast<long long>(delivered.size));
        return kExitOk;
    } catch (const Failure& failure) {
        session.error(failure.what());
        return for_queue(failure).code();
    }
}

Target ready_target(const Session& session, const Arguments& arguments) {
    try {
        return target_of(session, arguments);
    } catch (const Failure& failure) {
        throw for_queue(failure);
    }
}

int run_deliver(Session& session, const Arguments& arguments) {
    seed_random();
    const SignalHold signals;
    const Target target = ready_target(session, arguments);
    QuotaDaemon daemon;
    if (arguments.files.empty()) return deliver_one(session, target, "", signals, daemon);
    int worst = kExitOk;
    for (const string& file : arguments.files) {
        signals.check();
        worst = std::max(worst, deliver_one(session, target, file, signals, daemon));
    }
    return worst;
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
