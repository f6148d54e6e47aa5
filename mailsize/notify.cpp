// The datagram that tells the quota daemon of a folder's change.
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <tessaly/mailstore.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <string_view>

#include "base/fd.h"
#include "base/text.h"

namespace Tessaly::mailsize {

namespace {

using std::chrono::microseconds;
using Clock = std::chrono::steady_clock;

constexpr std::string_view kDaemon = "/tmp/quotad.socket";
constexpr std::size_t kPayloadBuffer = 576;
// How long a daemon whose queue is full may keep a caller.
constexpr auto kPatience = std::chrono::seconds(3);

sockaddr_un daemon_address() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    static_assert(kDaemon.size() < sizeof address.sun_path);
    kDaemon.copy(address.sun_path, kDaemon.size());
    return address;
}

// The socket's time limit for a send; 0 would mean none.
bool limit_send(int socket, Clock::duration limit) {
    const auto us = std::max(std::chrono::duration_cast<microseconds>(limit), microseconds(1));
    const timeval time = {us.count() / 1000000, us.count() % 1000000};
    return ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time) == 0;
}

// Signals end the waiting early; it goes on for what is left of the time.
ssize_t send_in_time(int socket, std::string_view text) {
    const sockaddr_un address = daemon_address();
    const auto end = Clock::now() + kPatience;
    for (;;) {
        if (!limit_send(socket, end - Clock::now())) return -1;
        const ssize_t sent = ::sendto(socket, text.data(), text.size(), 0,
                                      reinterpret_cast<const sockaddr*>(&address), sizeof address);
        if (sent >= 0 || errno != EINTR) return sent;
        if (Clock::now() < end) continue;
        errno = EAGAIN;  // as if no signal had come
        return -1;
    }
}

}  // namespace

}  // namespace Tessaly::mailsize

int tsl_update_mail_folder_size(const char* folder, long delta) {
    using namespace Tessaly;
    if (folder == nullptr) {
        errno = EINVAL;
        return -1;
    }
    const base::Fd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socket) {
        std::perror("socket");
        return -1;
    }
    char buffer[mailsize::kPayloadBuffer];
    base::BoundedText text(buffer, sizeof buffer);
    text << 'S' << delta << ",F(" << folder << ')';
    if (text.cut()) {  // a part of a path is another folder
        errno = EMSGSIZE;
        return -1;
    }
    return static_cast<int>(mailsize::send_in_time(socket.get(), text.view()));
}
