// What the resident services share: their sockets, limits and processes.
#ifndef TSMAIL_TOOLS_VERBS_SERVICE_H
#define TSMAIL_TOOLS_VERBS_SERVICE_H

#include <optional>
#include <string>
#include <vector>

#include "tools/cli/grammar.h"
#include "tools/lmtp/server.h"
#include "tools/lmtp/worker.h"

namespace Tessaly::tool {

struct ServiceArguments {
    std::vector<std::string> listen;
    std::optional<std::string> socket_mode, socket_owner, user, connections, idle, workers;
    bool remote = false;
};

void declare_service(Verb& verb, ServiceArguments& arguments);

// Runs the service and returns its exit code. Without sockets it serves one connection on standard
// input and output.
int serve(Session& session, const ServiceArguments& arguments, const lmtp::Rules& rules,
          const lmtp::Server::MakePeer& make);

}  // namespace Tessaly::tool

#endif
