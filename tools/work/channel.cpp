#include "tools/work/channel.h"

#include <poll.h>
#include <sys/socket.h>

#include <utility>
#include <vector>

#include "tools/cli/failure.h"
#include "tools/cli/passing.h"

namespace Tessaly::tool {

namespace {

constexpr std::size_t kLongest = 65536;  // of a head

Failure garbled() { return {kExitSoftware, "an item between two processes cannot be read"}; }

bool is_gone(int error) { return error == EPIPE || error == ECONNRESET; }

}  // namespace

void Channel::wait(short event) const {
    constexpr int kPause = 500;  // milliseconds
    pollfd polled = {socket_, event, 0};
    while (retry([&] { return ::poll(&polled, 1, kPause); }) == 0) idle_();
}

bool Channel::send(const Json& head, int file) const {
    const std::vector<std::uint8_t> bytes = Json::to_msgpack(head);
    for (;;) {
        wait(POLLOUT);
        if (send_with(socket_, bytes.data(), bytes.size(), file, MSG_DONTWAIT)) return true;
        if (is_gone(errno)) return false;
        if (errno != EAGAIN) throw system_failure("sending a message to another process");
    }
}

std::optional<Item> Channel::receive() const {
    std::vector<char> bytes(kLongest);
    Fd file;
    const auto take = [&] { return receive_with(socket_, bytes.data(), bytes.size(), file); };
    wait(POLLIN);
    ssize_t n = take();
    // A process that ends with items unread resets the connection. The reset is told once and in
    // front of what the process sent before.
    if (n < 0 && errno == ECONNRESET) n = take();
    if (n == 0 || (n < 0 && is_gone(errno))) return std::nullopt;
    if (n < 0) throw system_failure("receiving a message from another process");
    Json head = Json::from_msgpack(bytes.data(), bytes.data() + n, true, false);
    if (!head.is_object()) throw garbled();
    return Item{std::move(head), std::move(file)};
}

}  // namespace Tessaly::tool
