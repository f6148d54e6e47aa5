// What becomes of a message for one recipient, and how the peer is told.
#ifndef TSMAIL_TOOLS_LMTP_OUTCOME_H
#define TSMAIL_TOOLS_LMTP_OUTCOME_H

#include <cstdint>
#include <string>

#include "tools/cli/failure.h"
#include "tools/lmtp/protocol.h"

namespace Tessaly::tool::lmtp {

struct Outcome {
    Reply reply;
    std::string folder = {};  // where the message is
    std::uint64_t size = 0;   // as it is stored
    bool delivered() const { return reply.code < 300; }
};

// The reply to a failure: 4xx for what may work later, 5xx for what will not.
Reply reply_to(const Failure& failure);

}  // namespace Tessaly::tool::lmtp

#endif
