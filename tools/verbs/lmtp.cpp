// lmtp - the resident delivery service.
#include <unistd.h>

#include <climits>

#include "tools/cli/grammar.h"
#include "tools/lmtp/connection.h"
#include "tools/verbs/service.h"
#include "tools/verbs/verbs.h"
#include "tools/work/delivery.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct Arguments {
    ServiceArguments service;
    std::optional<string> max_size;
    bool new_folders = false, refuse_exceeded = false, defer_exceeded = false;
};

constexpr std::uint64_t kMaxSize = 52428800;

string host_name() {
    char name[HOST_NAME_MAX + 1] = {};
    return ::gethostname(name, sizeof name - 1) == 0 && name[0] != '\0' ? name : "localhost";
}

std::uint64_t max_size_of(const Arguments& arguments) {
    if (!arguments.max_size) return kMaxSize;
    return static_cast<std::uint64_t>(
        whole_number("--max-size", *arguments.max_size, 0, LLONG_MAX));
}

int run_lmtp(Session& session, const Arguments& arguments) {
    const lmtp::Rules rules = {
        session.callers_umask, arguments.new_folders,
        answer_over_quota(arguments.refuse_exceeded, arguments.defer_exceeded)};
    const lmtp::Settings settings = {host_name(), max_size_of(arguments)};
    lmtp::Memory memory;
    seed_random();
    return serve(session, arguments.service, rules,
                 [&](boost::asio::io_context& context, Fd in, Fd out, lmtp::Pool& pool,
                     const lmtp::Log& log) {
                     return std::make_shared<lmtp::Connection>(
                         context, std::move(in), std::move(out), settings,
                         rules.over_quota.has_value(), memory, pool, log);
                 });
}

void declare_lmtp(Verb& verb, Arguments& arguments) {
    declare_service(verb, arguments.service);
    verb.text("--max-size", arguments.max_size,
              "The most bytes of a message, 0 for no limit (default: 52428800)")
        .flag("--new-folders", arguments.new_folders,
              "Make the folder of a tag if it is missing (default: deliver to Inbox)")
        .flag("--refuse-exceeded", arguments.refuse_exceeded,
              "Refuse messages for a mailbox over its quota (552)")
        .flag("--defer-exceeded", arguments.defer_exceeded, "Put them off (452)");
}

}  // namespace

void add_lmtp_verb(const VerbGroup& top) {
    top.verb("lmtp", "Take messages from a transfer agent over LMTP", declare_lmtp, run_lmtp);
}

}  // namespace Tessaly::tool
