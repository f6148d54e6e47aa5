#include "tools/work/channel.h"

#include <poll.h>
#include <sys/socket.h>

#include <cstring>
#include <vector>

#include "tools/cli/failure.h"

namespace Tessaly::tool {

namespace {

constexpr std::size_t kLongest = 65536;  // of a head

union Control {
    char bytes[CMSG_SPACE(sizeof(int))];
    cmsghdr align;
};

void put_file(msghdr& message, Control& control, int file) {
    message.msg_control = control.bytes;
    message.msg_controllen = sizeof control.bytes;
    cmsghdr* head = CMSG_FIRSTHDR(&message);
    head->cmsg_level = SOL_SOCKET;
    head->cmsg_type = SCM_RIGHTS;
    head->cmsg_len = CMSG_LEN(sizeof file);
    std::memcpy(CMSG_DATA(head), &file, sizeof file);
}

Fd file_of(msghdr& message) {
    const cmsghdr* head = CMSG_FIRSTHDR(&message);
    if (head == nullptr || head->cmsg_type != SCM_RIGHTS) return Fd();
    int file = -1;
    std::memcpy(&file, CMSG_DATA(head), sizeof file);
    return Fd(file);
}

Failure garbled() { return {kExitSoftware, "an item between two processes cannot be read"}; }

bool is_gone(int error) { return error == EPIPE || error == ECONNRESET; }

}  // namespace

void Channel::wait(short event) const {
    constexpr int kPause = 500;  // milliseconds
    pollfd polled = {socket_, event, 0};
    while (retry([&] { return ::poll(&polled, 1, kPause); }) == 0) idle_();
}

bool Channel::send(const Json& head, int file) const {
    std::vector<std::uint8_t> bytes = Json::to_msgpack(head);
    iovec part = {bytes.data(), bytes.size()};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    Control control = {};
    if (file >= 0) put_file(message, control, file);
    for (;;) {
        wait(POLLOUT);
        if (retry([&] { return ::sendmsg(socket_, &message, MSG_NOSIGNAL | MSG_DONTWAIT); }) >= 0) {
            return true;
        }
        if (is_gone(errno)) return false;
        if (errno != EAGAIN) throw system_failure("sending a message to another process");
    }
}

std::optional<Item> Channel::receive() const {
    std::vector<char> bytes(kLongest);
    iovec part = {bytes.data(), bytes.size()};
    Control control = {};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.bytes;
    message.msg_controllen = sizeof control.bytes;
    wait(POLLIN);
    ssize_t n = retry([&] { return ::recvmsg(socket_, &message, MSG_CMSG_CLOEXEC); });
    // A process that ends with items unread resets the connection. The reset is told once and in
    // front of what the process sent before.
    if (n < 0 && errno == ECONNRESET) {
        n = retry([&] { return ::recvmsg(socket_, &message, MSG_CMSG_CLOEXEC); });
    }
    if (n == 0 || (n < 0 && is_gone(errno))) return std::nullopt;
    if (n < 0) throw system_failure("receiving a message from another process");
    Item item = {Json(), file_of(message)};
    if ((message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) throw garbled();
    item.head = Json::from_msgpack(bytes.data(), bytes.data() + n, true, false);
    if (!item.head.is_object()) throw garbled();
    return item;
}

}  // namespace Tessaly::tool
