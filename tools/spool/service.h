// A service: a network process without rights over mail, and workers that run as the mailboxes'
// owners.
//
// Three kinds of processes do the work. This process, which has the rights that it was started
// with, finds homes and their owners, starts workers, and does nothing else. The network process
// talks to the peers; started by root it is another user. It asks this process for a mailbox's
// owner and for workers, and then talks to the workers itself. So whoever takes over the network
// process can ask for deliveries, but has nobody's rights.
#ifndef TSMAIL_TOOLS_SPOOL_SERVICE_H
#define TSMAIL_TOOLS_SPOOL_SERVICE_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "tools/spool/worker.h"

namespace Tessaly::tool {

// What the network process asks for.
enum class Ask : std::uint32_t {
    owner,   // the owner of a mailbox
    worker,  // a new worker for that owner
    signal,  // a signal for a worker
};

struct Question {
    Ask ask = Ask::owner;
    std::uint32_t serial = 0;  // comes back with the answer
    pid_t process = 0;         // of a worker
    int signal = 0;
    std::uint32_t length = 0;
    char address[1024] = {};  // of the mailbox
};

struct Answer {
    std::uint32_t serial = 0;
    Owner owner;
    pid_t process = 0;  // of a new worker; its socket comes with the answer
    int code = 0;       // an ExitCode
    int error = 0;      // an errno
    std::uint32_t length = 0;
    char text[1024] = {};  // of the failure
};

struct Service {
    Owner network;  // whose rights the network process gets
    // The network process; returns its exit code. `questions` is its end of a socket of packets.
    std::function<int(int questions)> talk;
    Serve work;  // a worker, over a socket of packets
};

// Runs the service until the network process ends, and returns its exit code. TERM, INT and HUP are
// passed on to it; it has ten seconds.
int run_service(const Service& service);

}  // namespace Tessaly::tool

#endif
