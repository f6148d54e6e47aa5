// A whole conversation with the protocol, as tests see it.
#ifndef TSMAIL_TESTS_LMTP_CONVERSATION_H
#define TSMAIL_TESTS_LMTP_CONVERSATION_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "tools/lmtp/protocol.h"

namespace conversation {

inline const Tessaly::tool::lmtp::Settings kSettings = {"mx.site.test", 1000, 3};

struct Transcript {
    std::string replies;
    // "begin SENDER IDENT", "message SENDER to RECIPIENT...: TEXT", "drop".
    std::vector<std::string> events;
    std::size_t taken = 0;  // bytes, until the end of the connection

    bool operator==(const Transcript&) const = default;
};

// A recipient that begins with 'x' is unknown; after the text one that begins with 'y' is refused.
Tessaly::tool::lmtp::Reply verdict(const std::string& recipient);
Tessaly::tool::lmtp::Reply outcome(const std::string& recipient);

// Plays the input, which comes in pieces that end at the given places; beyond the last of them it
// comes at once.
Transcript played(std::string_view input, const std::vector<std::size_t>& cuts = {});
// The same in pieces of one length.
Transcript played_in_pieces(std::string_view input, std::size_t length);

// A plain second version: it looks at the whole input at once.
Transcript literal(std::string_view input);

std::string shown(const Transcript& transcript);

}  // namespace conversation

#endif
