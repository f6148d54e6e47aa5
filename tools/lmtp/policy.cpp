#include "tools/lmtp/policy.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace Tessaly::tool::lmtp {

namespace {

using std::string;
using std::string_view;

constexpr std::size_t kLongestLine = 2048;
constexpr string_view kRecipient = "recipient=";

// A reply that says the mailbox is full ends the transaction; the rest is for others to decide.
bool is_full(const Reply& reply) { return reply.status == "4.2.2" || reply.status == "5.2.2"; }

}  // namespace

std::size_t PolicyQuestion::take(string_view bytes) {
    std::size_t taken = 0;
    while (taken < bytes.size() && !complete_) {
        const string_view rest = bytes.substr(taken);
        const auto end = rest.find('\n');
        const string_view part = rest.substr(0, end);
        too_long_ = too_long_ || line_.size() + part.size() > kLongestLine;
        if (!too_long_) line_ += part;
        taken += part.size() + (end == string_view::npos ? 0 : 1);
        if (end != string_view::npos) end_line();
    }
    return taken;
}

void PolicyQuestion::end_line() {
    complete_ = line_.empty() && !too_long_;
    if (!too_long_ && line_.starts_with(kRecipient)) recipient_ = line_.substr(kRecipient.size());
    line_.clear();
    too_long_ = false;
}

PolicyConnection::PolicyConnection(boost::asio::io_context& context, Fd in, Fd out, Pool& pool,
                                   const Log& log)
    : Peer(context, std::move(in), std::move(out)), pool_(pool), log_(log) {}

void PolicyConnection::end(const string&) {
    ending_ = true;
    interrupt();
}

void PolicyConnection::go_on() {
    if (asking_) return;
    while (!received().empty() && !question_.complete()) take(question_.take(received()));
    if (!question_.complete()) return ending_ ? close() : receive();
    if (question_.recipient().empty()) return answer({{250, "2.0.0", ""}});
    asking_ = true;
    pool_.submit({"check",
                  question_.recipient(),
                  {},
                  {},
                  [this, self = shared_from_this()](const Outcome& outcome) {
                      asking_ = false;
                      answer(outcome);
                  }});
}

void PolicyConnection::answer(const Outcome& outcome) {
    const Reply& reply = outcome.reply;
    const bool full = is_full(reply);
    if (full)
        log_.line(Level::info, fmt::format("policy: to=<{}>, status={} {}", question_.recipient(),
                                           reply.code, reply.status));
    question_ = {};
    send(full ? fmt::format("action={} {} {}\n\n", reply.code, reply.status, reply.text)
              : string("action=DUNNO\n\n"));
}

}  // namespace Tessaly::tool::lmtp
