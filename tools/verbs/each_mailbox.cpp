#include "tools/verbs/each_mailbox.h"

#include "tools/cli/text.h"
#include "tools/work/folder.h"

namespace Tessaly::tool {

using std::string;

// In a worker.
MailboxWork passing_over(const Mailboxes& mailboxes, MailboxWork work) {
    if (!mailboxes.all) return work;
    return [work = std::move(work)](const TSMailUserId& id, Report& report) {
        try {
            return work(id, report);
        } catch (const Failure& failure) {
            if (failure.code() != kExitNoInput && mailbox_exists(id)) throw;
            return int{kExitOk};
        }
    };
}

Json addressed(const Mailboxes& mailboxes, const TSMailUserId& id, const Json& object) {
    if (!mailboxes.all || object.contains("address")) return object;
    Json addressed = {{"address", id.address(true)}};
    addressed.update(object);
    return addressed;
}

int run_on_each(Session& session, const Mailboxes& mailboxes, MailboxJob job,
                const std::function<void(int)>& end) {
    job.work = passing_over(mailboxes, std::move(job.work));
    job.show = [&, show = std::move(job.show)](const TSMailUserId& id, const Json& object) {
        if (!session.json) return show(id, object);
        session.out.object(addressed(mailboxes, id, object));
    };
    const JobResult result = run_quietly_on(session, mailboxes, job);
    if (end && !session.json) end(result.code);
    if (mailboxes.all) show_left_out(session, result);
    return result.code;
}

string lead(const Mailboxes& mailboxes, const TSMailUserId& id, const char* between) {
    return mailboxes.all ? printable(id.address(true)) + between : "";
}

}  // namespace Tessaly::tool
