#include "tools/lmtp/log.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

#include "tools/cli/text.h"

namespace Tessaly::tool::lmtp {

namespace {

using std::string;

constexpr char kJournal[] = "/run/systemd/journal/socket";
constexpr char kSystemLog[] = "/dev/log";

bool connect_to(int socket, const char* path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    const auto* where = reinterpret_cast<const sockaddr*>(&address);
    return ::connect(socket, where, sizeof address) == 0;
}

// Values are printable, so none holds a line end.
string for_journal(Level level, const string& text, const Log::Fields& fields) {
    string datagram = fmt::format(
        "MESSAGE={}\nPRIORITY={}\nSYSLOG_FACILITY={}\nSYSLOG_IDENTIFIER=tsmail\nSYSLOG_PID={}\n",
        text, static_cast<int>(level), LOG_MAIL >> 3, ::getpid());
    for (const auto& [name, value] : fields) {
        datagram += fmt::format("TSMAIL_{}={}\n", name, printable(value));
    }
    return datagram;
}

string for_system_log(Level level, const string& text) {
    const std::time_t now = ::time(nullptr);
    struct tm local = {};
    ::localtime_r(&now, &local);
    char moment[32];
    std::strftime(moment, sizeof moment, "%b %e %H:%M:%S", &local);
    return fmt::format("<{}>{} tsmail[{}]: {}", LOG_MAIL | static_cast<int>(level), moment,
                       ::getpid(), text);
}

}  // namespace

Log::Log() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    if (!socket_) return;
    journal_ = connect_to(socket_.get(), kJournal);
    if (!journal_ && !connect_to(socket_.get(), kSystemLog)) socket_.reset();
}

void Log::line(Level level, const string& text, Fields fields) const {
    if (!socket_) return;
    const string shown = printable(text);
    const string datagram =
        journal_ ? for_journal(level, shown, fields) : for_system_log(level, shown);
    ::send(socket_.get(), datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

}  // namespace Tessaly::tool::lmtp
