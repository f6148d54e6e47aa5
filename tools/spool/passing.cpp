#include "tools/spool/passing.h"

#include <sys/socket.h>

#include <cstring>

namespace Tessaly::tool {

namespace {

union Control {
    char bytes[CMSG_SPACE(sizeof(int))];
    cmsghdr align;
};

}  // namespace

bool send_with(int socket, const void* bytes, std::size_t size, int descriptor) {
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
    const ssize_t sent = retry([&] { return ::sendmsg(socket, &message, MSG_NOSIGNAL); });
    return sent == static_cast<ssize_t>(size);
}

ssize_t receive_with(int socket, void* bytes, std::size_t room, Fd& descriptor, bool whole) {
    iovec part = {bytes, room};
    Control control = {};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.bytes;
    message.msg_controllen = sizeof control.bytes;
    const int flags = MSG_CMSG_CLOEXEC | (whole ? MSG_WAITALL : 0);
    const ssize_t n = retry([&] { return ::recvmsg(socket, &message, flags); });
    const cmsghdr* head = n >= 0 ? CMSG_FIRSTHDR(&message) : nullptr;
    if (head != nullptr && head->cmsg_type == SCM_RIGHTS) {
        int received = -1;
        std::memcpy(&received, CMSG_DATA(head), sizeof received);
        descriptor.reset(received);
    }
    return n;
}

}  // namespace Tessaly::tool
