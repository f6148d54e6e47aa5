// The log of the service: the journal where there is one, else the system's log.
#ifndef TSMAIL_TOOLS_LMTP_LOG_H
#define TSMAIL_TOOLS_LMTP_LOG_H

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

#include "tools/cli/descriptors.h"

namespace Tessaly::tool::lmtp {

enum class Level : int { error = 3, warning = 4, notice = 5, info = 6 };

// Writes one datagram a line and waits for nobody: a log that does not take a line loses it.
class Log {
  public:
    using Fields = std::initializer_list<std::pair<std::string_view, std::string>>;

    Log();
    // The fields go to the journal beside the text, under names that begin with TSMAIL_.
    void line(Level level, const std::string& text, Fields fields = {}) const;

  private:
    Fd socket_;
    bool journal_ = false;
};

}  // namespace Tessaly::tool::lmtp

#endif
