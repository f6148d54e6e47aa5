#include "tools/lmtp/listeners.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "tools/cli/failure.h"
#include "tools/cli/text.h"

namespace Tessaly::tool::lmtp {

namespace {

using std::string;
using std::string_view;

constexpr int kBacklog = 128;
constexpr int kFirstInherited = 3;

Failure failed(const string& path) {
    const int error = errno;
    return {exit_code_of(error), printable(path) + ": " + error_text(error), error};
}

Failure not_a_socket(const string& where) {
    return {kExitUsage, "\"" + printable(where) + "\" is not unix:PATH or inet:ADDRESS:PORT"};
}

Fd new_socket(int family) {
    Fd fd(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) throw system_failure("a socket");
    return fd;
}

bool bind_to(int fd, const sockaddr_un& address) {
    return ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

// Whether nobody listens on a socket any more that still has its file. Another file is not touched.
bool is_left_over(const sockaddr_un& address) {
    struct stat st;
    if (::lstat(address.sun_path, &st) != 0 || !S_ISSOCK(st.st_mode)) return false;
    const Fd fd = new_socket(AF_UNIX);
    return ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
           errno == ECONNREFUSED;
}

void bind_anew(int fd, const sockaddr_un& address) {
    if (bind_to(fd, address)) return;
    const int error = errno;
    if (error == EADDRINUSE && is_left_over(address) && ::unlink(address.sun_path) == 0 &&
        bind_to(fd, address)) {
        return;
    }
    errno = error;
    throw failed(address.sun_path);
}

int environment_number(const char* name) {
    const char* text = std::getenv(name);
    int number = 0;
    if (text != nullptr) std::from_chars(text, text + std::strlen(text), number);
    return number;
}

bool is_loopback(const sockaddr_storage& address) {
    if (address.ss_family == AF_INET6) {
        const auto& six = reinterpret_cast<const sockaddr_in6&>(address);
        return IN6_IS_ADDR_LOOPBACK(&six.sin6_addr) != 0;
    }
    const auto& four = reinterpret_cast<const sockaddr_in&>(address);
    return (ntohl(four.sin_addr.s_addr) >> 24) == IN_LOOPBACKNET;
}

bool read_address(string host, std::uint16_t port, sockaddr_storage& address) {
    auto& four = reinterpret_cast<sockaddr_in&>(address);
    auto& six = reinterpret_cast<sockaddr_in6&>(address);
    if (host.starts_with('[') && host.ends_with(']')) {
        six.sin6_family = AF_INET6;
        six.sin6_port = htons(port);
        host = host.substr(1, host.size() - 2);
        return ::inet_pton(AF_INET6, host.c_str(), &six.sin6_addr) == 1;
    }
    four.sin_family = AF_INET;
    four.sin_port = htons(port);
    return ::inet_pton(AF_INET, host.c_str(), &four.sin_addr) == 1;
}

}  // namespace

Listeners::~Listeners() {
    for (const File& file : files_) {
        struct stat st;
        const bool same = ::lstat(file.path.c_str(), &st) == 0 && st.st_dev == file.device &&
                          st.st_ino == file.inode;
        if (same) ::unlink(file.path.c_str());
    }
}

void Listeners::open(const string& where, const ListenRules& rules) {
    if (where.starts_with("unix:")) return open_unix(where.substr(5), rules);
    if (where.starts_with("inet:")) return open_inet(where.substr(5), rules);
    throw not_a_socket(where);
}

void Listeners::open_unix(const string& path, const ListenRules& rules) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) throw not_a_socket("unix:" + path);
    std::memcpy(address.sun_path, path.data(), path.size());
    Fd fd = new_socket(AF_UNIX);
    bind_anew(fd.get(), address);
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) throw failed(path);
    files_.push_back({path, st.st_dev, st.st_ino});
    if (rules.owner && ::lchown(path.c_str(), rules.owner->user, rules.owner->group) != 0) {
        throw failed(path);
    }
    if (::chmod(path.c_str(), rules.mode) != 0 || ::listen(fd.get(), kBacklog) != 0) {
        throw failed(path);
    }
    sockets_.push_back(std::move(fd));
}

void Listeners::open_inet(const string& where, const ListenRules& rules) {
    const auto colon = where.rfind(':');
    const string host = colon == string::npos ? "127.0.0.1" : where.substr(0, colon);
    const string_view port = string_view(where).substr(colon == string::npos ? 0 : colon + 1);
    std::uint16_t number = 0;
    const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), number);
    sockaddr_storage address = {};
    if (port.empty() || error != std::errc() || end != port.data() + port.size() ||
        !read_address(host, number, address)) {
        throw not_a_socket("inet:" + where);
    }
    if (!rules.remote && !is_loopback(address)) {
        throw Failure(kExitUsage,
                      printable(host) + ": other machines reach this address; --remote allows it");
    }
    Fd fd = new_socket(address.ss_family);
    const int yes = 1;
    ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(fd.get(), kBacklog) != 0) {
        throw failed(where);
    }
    sockets_.push_back(std::move(fd));
}

void Listeners::take_inherited() {
    if (environment_number("LISTEN_PID") != ::getpid()) return;
    const int count = environment_number("LISTEN_FDS");
    for (int fd = kFirstInherited; fd < kFirstInherited + count; ++fd) {
        ::fcntl(fd, F_SETFD, FD_CLOEXEC);
        sockets_.emplace_back(fd);
    }
}

}  // namespace Tessaly::tool::lmtp
