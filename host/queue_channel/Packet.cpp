#include "Packet.h"

#include <cutils/native_handle.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace vel::queue_channel {
namespace {

using android::hardware::hidl_handle;

// More than one is too many. The kernel closes what there is no room for; an emulator may lose it.
constexpr size_t kDescriptorRoom = 4;

// A message with room for the packet and descriptors.
struct Message : msghdr {
    Message(void* packet, size_t size) : msghdr(), bytes{packet, size} {
        msg_iov = &bytes;
        msg_iovlen = 1;
        msg_control = control;
        msg_controllen = sizeof(control);
    }
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    iovec bytes;
    alignas(cmsghdr) char control[CMSG_SPACE(kDescriptorRoom * sizeof(int))] = {};
};

// Keeps one descriptor and closes others; false unless there is at most one, and nothing else.
bool takeDescriptor(const Message& message, hidl_handle* handle) {
    if (message.msg_controllen == 0) return true;
    const auto* const header = reinterpret_cast<const cmsghdr*>(message.control);  // no other has room
    if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) return false;
    for (size_t at = CMSG_LEN(0); at < header->cmsg_len; at += sizeof(int)) {
        native_handle_t* const native = native_handle_create(1, 0);
        std::memcpy(native->data, message.control + at, sizeof(int));
        handle->setTo(native, true);
    }
    return header->cmsg_len == CMSG_LEN(sizeof(int));
}

// A packet without a byte reads like the end.
bool isAtEnd(int socket) {
    pollfd events{socket, POLLRDHUP, 0};
    return poll(&events, 1, 0) != 0;
}

}  // namespace

int send(int socket, const void* packet, size_t size, const hidl_handle& handle, int flags) {
    Message message(const_cast<void*>(packet), size);
    const native_handle_t* const native = handle.getNativeHandle();
    if (native == nullptr || native->numFds + native->numInts == 0) {
        message.msg_controllen = 0;
    } else if (native->numFds != 1 || native->numInts != 0) {
        return EINVAL;
    } else {
        auto* const header = reinterpret_cast<cmsghdr*>(message.control);
        *header = {CMSG_LEN(sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
        message.msg_controllen = CMSG_SPACE(sizeof(int));
        std::memcpy(CMSG_DATA(header), native->data, sizeof(int));
    }
    ssize_t count;
    do {
        count = sendmsg(socket, &message, MSG_NOSIGNAL | flags);
    } while (count < 0 && errno == EINTR);
    if (count >= 0) return 0;
    return errno == ECONNRESET || errno == ECONNREFUSED ? EPIPE : errno;
}

Received receive(int socket, void* packet, size_t size, hidl_handle* handle) {
    Message message(packet, size);
    ssize_t count;
    do {
        count = recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
    } while (count < 0 && errno == EINTR);
    if (count < 0) return Received::END;
    const bool isComplete = takeDescriptor(message, handle) && count == static_cast<ssize_t>(size) &&
                            (message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) == 0;
    if (isComplete) return Received::PACKET;
    if ((message.msg_flags & MSG_CTRUNC) != 0 && message.msg_controllen == 0) return Received::NO_DESCRIPTOR;
    return count == 0 && isAtEnd(socket) ? Received::END : Received::MALFORMED;
}

}  // namespace vel::queue_channel
