// The sockets that a service listens on.
#ifndef TSMAIL_TOOLS_LMTP_LISTENERS_H
#define TSMAIL_TOOLS_LMTP_LISTENERS_H

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "tools/cli/descriptors.h"
#include "tools/spool/owner.h"

namespace Tessaly::tool::lmtp {

struct ListenRules {
    mode_t mode = 0600;          // of a unix socket
    std::optional<Owner> owner;  // of a unix socket
    bool remote = false;         // addresses that other machines reach are allowed
};

// Listening sockets; those of the file system are removed at the end.
class Listeners {
  public:
    Listeners() = default;
    Listeners(Listeners&&) = default;
    Listeners& operator=(Listeners&&) = delete;
    ~Listeners();

    // Opens "unix:PATH" or "inet:ADDRESS:PORT" (an IPv6 address in brackets; without an address:
    // 127.0.0.1). A Failure: kExitUsage for other texts, and for an address that is refused.
    void open(const std::string& where, const ListenRules& rules);
    // Takes the sockets that the system's manager hands to this process.
    void take_inherited();

    const std::vector<Fd>& sockets() const { return sockets_; }
    bool empty() const { return sockets_.empty(); }

  private:
    struct File {
        std::string path;
        dev_t device;
        ino_t inode;
    };
    void open_unix(const std::string& path, const ListenRules& rules);
    void open_inet(const std::string& where, const ListenRules& rules);

    std::vector<Fd> sockets_;
    std::vector<File> files_;
};

}  // namespace Tessaly::tool::lmtp

#endif
