// policy - the resident service that tells Postfix whether a mailbox has room.
#include "tools/lmtp/policy.h"
#include "tools/cli/grammar.h"
#include "tools/verbs/service.h"
#include "tools/verbs/verbs.h"
#include "tools/work/delivery.h"

namespace Tessaly::tool {

namespace {

struct Arguments {
    ServiceArguments service;
    bool refuse_exceeded = false, defer_exceeded = false;
};

int run_policy(Session& session, const Arguments& arguments) {
    const auto over_quota = answer_over_quota(arguments.refuse_exceeded, arguments.defer_exceeded);
    const lmtp::Rules rules = {session.callers_umask, false, over_quota.value_or(kExitTryAgain)};
    return serve(session, arguments.service, rules,
                 [](boost::asio::io_context& context, Fd in, Fd out, lmtp::Pool& pool,
                    const lmtp::Log& log) {
                     return std::make_shared<lmtp::PolicyConnection>(context, std::move(in),
                                                                     std::move(out), pool, log);
                 });
}

void declare_policy(Verb& verb, Arguments& arguments) {
    declare_service(verb, arguments.service);
    verb.flag("--refuse-exceeded", arguments.refuse_exceeded,
              "Refuse mail for a mailbox over its quota (552 5.2.2)")
        .flag("--defer-exceeded", arguments.defer_exceeded, "Put it off (452 4.2.2, the default)");
}

}  // namespace

void add_policy_verb(const VerbGroup& top) {
    top.verb("policy", "Tell Postfix whether mailboxes have room", declare_policy, run_policy);
}

}  // namespace Tessaly::tool
