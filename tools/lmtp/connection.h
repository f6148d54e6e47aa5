// A connection that speaks LMTP.
#ifndef TSMAIL_TOOLS_LMTP_CONNECTION_H
#define TSMAIL_TOOLS_LMTP_CONNECTION_H

#include <optional>
#include <string>
#include <vector>

#include "tools/lmtp/log.h"
#include "tools/lmtp/peer.h"
#include "tools/lmtp/pool.h"
#include "tools/lmtp/protocol.h"

namespace Tessaly::tool::lmtp {

class Connection : public Peer, private ContentSink {
  public:
    // check: ask the mailbox about its quota when a recipient is named.
    Connection(boost::asio::io_context& context, Fd in, Fd out, const Settings& settings,
               bool check, Memory& memory, Pool& pool, const Log& log);

    void end(const std::string& why) override;

  private:
    void go_on() override;
    void judge();
    void deliver();
    void deliver_to(std::size_t recipient);
    void note(std::size_t recipient, const Outcome& outcome, Clock::time_point began);
    void log(const std::string& recipient, const Outcome& outcome, Clock::duration took) const;
    void answer_message();

    void begin(const Envelope& envelope) override;
    void write(std::string_view bytes) override;
    void drop() override;

    Protocol protocol_;
    const bool check_;
    Memory& memory_;
    Pool& pool_;
    const Log& log_;
    std::shared_ptr<MessageFile> message_;
    std::string ident_;
    bool judging_ = false, delivering_ = false;
    std::string ending_;  // why the connection ends soon
    std::vector<std::optional<Outcome>> outcomes_;
    std::size_t outstanding_ = 0;
};

}  // namespace Tessaly::tool::lmtp

#endif
