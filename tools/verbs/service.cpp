#include "tools/verbs/service.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <charconv>
#include <utility>

#include "tools/cli/text.h"
#include "tools/lmtp/listeners.h"
#include "tools/spool/new_home.h"
#include "tools/spool/service.h"

namespace Tessaly::tool {

namespace {

using std::string;

constexpr long long kMostConnections = 10000, kMostWorkers = 1000;

long long number_or(const char* what, const std::optional<string>& given, long long otherwise,
                    long long most) {
    return given ? whole_number(what, *given, 1, most) : otherwise;
}

mode_t mode_of(const string& text) {
    unsigned mode = 0;
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, mode, 8);
    constexpr unsigned kMost = 0777;
    if (error == std::errc() && rest == end && !text.empty() && mode <= kMost) return mode;
    throw Failure(kExitUsage, "--socket-mode \"" + printable(text) + "\" is not a mode, as 0660");
}

lmtp::Listeners listeners_of(const ServiceArguments& arguments) {
    lmtp::ListenRules rules;
    if (arguments.socket_mode) rules.mode = mode_of(*arguments.socket_mode);
    if (arguments.socket_owner) rules.owner = owner_named(*arguments.socket_owner);
    rules.remote = arguments.remote;
    lmtp::Listeners listeners;
    for (const string& where : arguments.listen) listeners.open(where, rules);
    listeners.take_inherited();
    return listeners;
}

lmtp::Limits limits_of(const Session& session, const ServiceArguments& arguments) {
    lmtp::Limits limits;
    limits.connections = static_cast<std::size_t>(
        number_or("--connections", arguments.connections, 100, kMostConnections));
    limits.workers =
        static_cast<std::size_t>(number_or("--workers", arguments.workers, 16, kMostWorkers));
    if (arguments.idle) limits.idle = age_of("--idle", *arguments.idle);
    limits.delivery = session.timeout;
    return limits;
}

// Without root's rights the network process stays the user that started the service.
Owner network_user(const ServiceArguments& arguments) {
    if (::geteuid() != 0) return {};
    const Owner owner = owner_named(arguments.user.value_or("nobody"));
    if (owner.user == 0) throw Failure(kExitUsage, "--user: the network process must not be root");
    return {true, owner.user, owner.group};
}

bool is_socket(int fd) {
    int type = 0;
    socklen_t length = sizeof type;
    return ::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0;
}

void serve_standard_streams(lmtp::Server& server) {
    Fd in(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0));
    const bool both = is_socket(STDIN_FILENO);
    server.serve_one(std::move(in), both ? Fd() : Fd(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0)));
}

}  // namespace

void declare_service(Verb& verb, ServiceArguments& arguments) {
    verb.repeated(
        "--listen", arguments.listen,
        "unix:PATH or inet:ADDRESS:PORT; several times (default: the sockets that systemd "
        "hands over, else standard input)");
    verb.text("--socket-mode", arguments.socket_mode, "Mode of unix sockets (default: 0600)")
        .text("--socket-owner", arguments.socket_owner,
              "Owner of unix sockets, as USER or USER:GROUP")
        .flag("--remote", arguments.remote, "Allow addresses that other machines reach")
        .text("--user", arguments.user,
              "User of the network process if root starts the service (default: nobody)")
        .text("--connections", arguments.connections, "Connections at a time (default: 100)")
        .text("--idle", arguments.idle,
              "How long a connection may be silent, as 30s or 1h (default: 300s)")
        .text("--workers", arguments.workers, "Workers at a time (default: 16)");
}

int serve(Session& session, const ServiceArguments& arguments, const lmtp::Rules& rules,
          const lmtp::Server::MakePeer& make) {
    const lmtp::Limits limits = limits_of(session, arguments);
    Service service;
    service.network = network_user(arguments);
    const lmtp::Listeners listeners = listeners_of(arguments);
    service.talk = [&](int questions) {
        lmtp::Server server(limits, questions, make);
        server.listen(listeners.sockets());
        if (listeners.empty()) serve_standard_streams(server);
        server.run();
        return int{kExitOk};
    };
    service.work = [&](int socket, const std::optional<Failure>& refused) noexcept {
        lmtp::serve(socket, rules, refused);
    };
    return run_service(service);
}

}  // namespace Tessaly::tool
