// The protocol in which Postfix asks for a policy: whether a mailbox has room.
#ifndef TSMAIL_TOOLS_LMTP_POLICY_H
#define TSMAIL_TOOLS_LMTP_POLICY_H

#include <string>
#include <string_view>

#include "tools/lmtp/log.h"
#include "tools/lmtp/peer.h"
#include "tools/lmtp/pool.h"

namespace Tessaly::tool::lmtp {

// A question: lines "name=value" up to an empty one. Only the recipient is kept.
class PolicyQuestion {
  public:
    // Takes bytes up to the end of the question and returns how many.
    std::size_t take(std::string_view bytes);
    bool complete() const { return complete_; }
    // Empty if the question names none.
    const std::string& recipient() const { return recipient_; }

  private:
    void end_line();

    std::string line_, recipient_;
    bool too_long_ = false, complete_ = false;
};

// A connection: a question, its answer, and so on.
class PolicyConnection : public Peer {
  public:
    PolicyConnection(boost::asio::io_context& context, Fd in, Fd out, Pool& pool, const Log& log);

    void end(const std::string& why) override;

  private:
    void go_on() override;
    void answer(const Outcome& outcome);

    Pool& pool_;
    const Log& log_;
    PolicyQuestion question_;
    bool ending_ = false, asking_ = false;
};

}  // namespace Tessaly::tool::lmtp

#endif
