// Progress - shows a user at a terminal how far long work has come.
#ifndef TSMAIL_TOOLS_CLI_PROGRESS_H
#define TSMAIL_TOOLS_CLI_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <string>

#include "tools/cli/session.h"

namespace Tessaly::tool {

// A line on standard error with a bar, the rate and the remaining time. It is shown only on a
// terminal and only after the first second of work, updated a few times a second, and removed at
// the end.
class Progress {
  public:
    // total: what advance() will reach; 0 if unknown.
    Progress(const Session& session, std::string what, std::uint64_t total);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress();

    void advance(std::uint64_t done);
    // The same, where the total becomes known only now.
    void advance(std::uint64_t done, std::uint64_t total);

  private:
    using Clock = std::chrono::steady_clock;
    void show(std::uint64_t done, Clock::time_point now);

    bool wanted_;
    bool shown_ = false;
    std::string what_;
    std::uint64_t total_;
    Clock::time_point begin_, next_;
};

}  // namespace Tessaly::tool

#endif
