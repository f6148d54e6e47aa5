#include "tools/lmtp/connection.h"

#include <fmt/format.h>

#include <utility>

#include "tools/cli/address.h"
#include "tools/work/delivery.h"

namespace Tessaly::tool::lmtp {

namespace {

using std::string;

// The identifier of the sender's queue, or one of our own if that could not be part of a file name.
string usable_ident(const string& ident) {
    try {
        check_queue_id(ident);
        return ident;
    } catch (const Failure&) {
        return own_queue_id();
    }
}

}  // namespace

Connection::Connection(boost::asio::io_context& context, Fd in, Fd out, const Settings& settings,
                       bool check, Memory& memory, Pool& pool, const Log& log)
    : Peer(context, std::move(in), std::move(out)),
      protocol_(settings, *this),
      check_(check),
      memory_(memory),
      pool_(pool),
      log_(log) {}

void Connection::end(const string& why) {
    ending_ = why;
    interrupt();  // what is being judged or delivered is answered first
}

void Connection::go_on() {
    using Wants = Protocol::Wants;
    for (;;) {
        if (!ending_.empty() && protocol_.wants() == Wants::bytes) {
            protocol_.close(std::exchange(ending_, {}));
        }
        if (!protocol_.output().empty()) return send(std::exchange(protocol_.output(), {}));
        switch (protocol_.wants()) {
            case Wants::end:
                return close();
            case Wants::recipient:
                return judge();
            case Wants::message:
                return deliver();
            case Wants::bytes:
                if (received().empty()) return receive();
                take(protocol_.take(received()));
        }
    }
}

// ---- recipients

void Connection::judge() {
    if (std::exchange(judging_, true)) return;
    const auto done = [this, self = shared_from_this()](const Outcome& outcome) {
        judging_ = false;
        protocol_.answer(outcome.reply);
        go_on();
    };
    if (check_) return pool_.submit({"check", protocol_.asked(), {}, {}, done});
    pool_.find(protocol_.asked(), done);
}

// ---- the message

void Connection::begin(const Envelope& envelope) {
    ident_ = usable_ident(envelope.ident);
    message_ = std::make_shared<MessageFile>(envelope.announced, memory_);
    message_->write("Return-Path: <" + envelope.sender + ">\n");
}

void Connection::write(std::string_view bytes) { message_->write(bytes); }

void Connection::drop() { message_.reset(); }

void Connection::deliver() {
    if (std::exchange(delivering_, true)) return;
    const std::size_t count = protocol_.envelope().accepted.size();
    outcomes_.assign(count, std::nullopt);
    outstanding_ = count;
    const bool whole = message_->finish();
    for (std::size_t n = 0; n < count; ++n) {
        if (whole) {
            deliver_to(n);
        } else {
            note(n, {{452, "4.3.1", "No room for the message"}}, Clock::now());
        }
    }
}

void Connection::deliver_to(std::size_t recipient) {
    const auto began = Clock::now();
    pool_.submit({"deliver", protocol_.envelope().accepted[recipient], ident_, message_,
                  [this, self = shared_from_this(), recipient, began](const Outcome& outcome) {
                      note(recipient, outcome, began);
                  }});
}

void Connection::note(std::size_t recipient, const Outcome& outcome, Clock::time_point began) {
    log(protocol_.envelope().accepted[recipient], outcome, Clock::now() - began);
    outcomes_[recipient] = outcome;
    if (--outstanding_ == 0) answer_message();
}

void Connection::answer_message() {
    message_.reset();
    delivering_ = false;
    for (const auto& outcome : std::exchange(outcomes_, {})) protocol_.answer(outcome->reply);
    go_on();
}

void Connection::log(const string& recipient, const Outcome& outcome, Clock::duration took) const {
    const auto seconds = std::chrono::duration<double>(took).count();
    const string status = fmt::format("{} {}", outcome.reply.code, outcome.reply.status);
    const string where = outcome.delivered()
                             ? fmt::format("folder={}, size={}", outcome.folder, outcome.size)
                             : "reason=" + outcome.reply.text;
    const string& sender = protocol_.envelope().sender;
    log_.line(outcome.delivered() ? Level::info : Level::notice,
              fmt::format("{}: from=<{}>, to=<{}>, {}, delay={:.3f}, status={}", ident_, sender,
                          recipient, where, seconds, status),
              {{"QUEUE_ID", ident_},
               {"SENDER", sender},
               {"RECIPIENT", recipient},
               {"FOLDER", outcome.folder},
               {"SIZE", std::to_string(outcome.size)},
               {"DELAY", fmt::format("{:.3f}", seconds)},
               {"STATUS", status}});
}

}  // namespace Tessaly::tool::lmtp
