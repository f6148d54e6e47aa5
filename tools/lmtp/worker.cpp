#include "tools/lmtp/worker.h"

#include <unistd.h>

#include <new>

#include "tools/cli/address.h"
#include "tools/cli/passing.h"
#include "tools/cli/text.h"
#include "tools/work/delivery.h"
#include "tools/work/quota_daemon.h"
#include "tools/work/records.h"

namespace Tessaly::tool::lmtp {

namespace {

using std::string;

class Server {
  public:
    Server(int socket, const Rules& rules) : rules_(rules), report_(socket) {}

    void run(const Json& task, int message) {
        try {
            do_task(task, message);
        } catch (const Failure& failure) {
            report_.error(for_queue(failure));
        } catch (const std::bad_alloc&) {
            report_.error(Failure(kExitTryAgain, "out of memory", ENOMEM));
        } catch (const std::exception& e) {
            report_.error(Failure(kExitTryAgain, string("internal error: ") + printable(e.what())));
        }
        report_.end(kExitOk);
    }
    void refuse(const Failure& failure) {
        report_.error(failure);
        report_.end(kExitOk);
    }

  private:
    void do_task(const Json& task, int message) {
        const string what = task.at("do");
        const TSMailUserId id = mailbox_of(task.at("address").get<string>());
        if (what == "mark") return mark_for_recount(id);
        if (what == "check") return check(id);
        deliver_message(id, task.at("ident"), message);
    }

    void check(const TSMailUserId& id) {
        demand_mailbox(id);
        if (rules_.over_quota) demand_room(id, *rules_.over_quota);
    }

    void deliver_message(const TSMailUserId& id, const string& ident, int message) {
        DeliveryPlan plan = {
            id, {}, ident, rules_.callers_umask, false, rules_.new_folders, rules_.over_quota};
        plan.demand_flush = true;
        off_t position = 0;  // others deliver the same message at the same time
        const Input input = {Fd(), message, "the message", &position};
        const auto delivered = deliver(plan, input, signals_, report_);
        if (!delivered) return;
        daemon_.tell(id.mailfolder(delivered->folder), static_cast<long long>(delivered->size));
    }

    const Rules& rules_;
    const SignalHold signals_;
    QuotaDaemon daemon_;
    Report report_;
};

// The next task, and the message that came with it; nothing at the end.
std::optional<Json> receive_task(int socket, Fd& message) {
    char bytes[kLongestTask];
    message.reset();
    const ssize_t n = receive_with(socket, bytes, sizeof bytes, message);
    if (n <= 0) return std::nullopt;
    return Json::from_msgpack(bytes, bytes + n, true, false);
}

}  // namespace

void serve(int socket, const Rules& rules, const std::optional<Failure>& refused) noexcept try {
    seed_random();
    Server server(socket, rules);
    Fd message;
    while (const auto task = receive_task(socket, message)) {
        if (refused) {
            server.refuse(*refused);
        } else {
            server.run(*task, message.get());
        }
    }
} catch (...) {
    ::_exit(kExitTryAgain);  // an exception while reporting: the parent is gone, or tells of it
}

}  // namespace Tessaly::tool::lmtp
