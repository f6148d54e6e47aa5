// The same file system from two machines: one waits and holds locks, the other tries them.
#ifndef TSMAIL_TOOLS_DOCTOR_SPOOL_PEER_H
#define TSMAIL_TOOLS_DOCTOR_SPOOL_PEER_H

#include <chrono>
#include <functional>
#include <string>

#include "tools/doctor/spool_traits.h"

namespace Tessaly::tool {

// The hidden directory in which the two meet.
constexpr char kMeetingPlace[] = ".ts_probe";

// On the first machine: makes the meeting place in `parent`, holds locks there and answers until
// the other machine has finished. The meeting place is removed at the end. A Failure if there is
// one already, if nobody comes within the time, or if the pipe `alive` (unless -1) is closed before
// the other machine has finished.
void wait_for_peer(const std::string& parent, std::chrono::milliseconds time, int alive);

// On the second machine: waits for the meeting place and calls `take` for each trait. A Failure if
// nobody waits there within the time.
void try_with_peer(const std::string& parent, std::chrono::milliseconds time,
                   const std::function<void(const Trait&, const Outcome&)>& take);

}  // namespace Tessaly::tool

#endif
