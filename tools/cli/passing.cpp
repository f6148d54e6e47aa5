#include "tools/cli/passing.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace Tessaly::tool {

namespace {

union Control {
    char bytes[CMSG_SPACE(sizeof(int))];
    cmsghdr align;
};

}  // namespace

bool send_with(int socket, const void* bytes, std::size_t size, int descriptor, int flags) {
    iovec part = {const_cast<void*>(bytes), size};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    Control control = {};
    if (descriptor >= 0) {
        message.msg_control = control.bytes;
        message.msg_controllen = sizeof control.bytes;
        cmsghdr* head = CMSG_FIRSTHDR(&message);
        head->cmsg_level = SOL_SOCKET;
        head->cmsg_type = SCM_RIGHTS;
        head->cmsg_len = CMSG_LEN(sizeof descriptor);
        std::memcpy(CMSG_DATA(head), &descriptor, sizeof descriptor);
    }
    const ssize_t sent = retry([&] { return ::sendmsg(socket, &message, flags | MSG_NOSIGNAL); });
    return sent == static_cast<ssize_t>(size);
}

ssize_t receive_with(int socket, void* bytes, std::size_t room, Fd& descriptor, int flags) {
    iovec part = {bytes, room};
    Control control = {};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.bytes;
    message.msg_controllen = sizeof control.bytes;
    const ssize_t n = retry([&] { return ::recvmsg(socket, &message, flags | MSG_CMSG_CLOEXEC); });
    if (n < 0) return n;
    const cmsghdr* head = CMSG_FIRSTHDR(&message);
    if (head != nullptr && head->cmsg_type == SCM_RIGHTS) {
        int received = -1;
        std::memcpy(&received, CMSG_DATA(head), sizeof received);
        descriptor.reset(received);
    }
    if ((message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) == 0) return n;
    errno = (message.msg_flags & MSG_TRUNC) != 0 ? EMSGSIZE : EMFILE;
    return -1;
}

}  // namespace Tessaly::tool
