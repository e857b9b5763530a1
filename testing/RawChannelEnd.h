#pragma once

#include <android-base/unique_fd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

/** One end of a buffer queue's channel, where a packet may have any size and any number of descriptors. */
class RawChannelEnd {
  public:
    explicit RawChannelEnd(android::base::unique_fd socket) : mSocket(std::move(socket)) {}

    static RawChannelEnd openPair(android::base::unique_fd* other) {
        int ends[2] = {-1, -1};
        (void)socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends);
        other->reset(ends[1]);
        return RawChannelEnd(android::base::unique_fd(ends[0]));
    }

    /**
     * Sends the packet, longer by up to 16 bytes or shorter by any number, with up to 8 descriptors, which
     * stay the caller's. False when the other end is gone; waits for room unless the flags say otherwise.
     */
    template <typename Packet>
    bool send(const Packet& packet, int extraBytes = 0, const std::vector<int>& descriptors = {},
              int flags = 0) {
        char bytes[sizeof(packet) + 16] = {};
        std::memcpy(bytes, &packet, sizeof(packet));
        iovec part{bytes, static_cast<size_t>(std::max(static_cast<int>(sizeof(packet)) + extraBytes, 0))};
        alignas(cmsghdr) char control[CMSG_SPACE(8 * sizeof(int))] = {};
        msghdr message = {};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        const size_t size = descriptors.size() * sizeof(int);
        if (size > 0) {
            message.msg_control = control;
            message.msg_controllen = CMSG_SPACE(size);
            auto* const header = reinterpret_cast<cmsghdr*>(control);
            *header = {CMSG_LEN(size), SOL_SOCKET, SCM_RIGHTS};
            std::memcpy(CMSG_DATA(header), descriptors.data(), size);
        }
        return sendmsg(mSocket, &message, MSG_NOSIGNAL | flags) == static_cast<ssize_t>(part.iov_len);
    }
    /** Waits for the next packet, unless the flags say otherwise: its size, 0 at the end, or below 0. */
    template <typename Packet>
    ssize_t receive(Packet& packet, int flags = 0) {
        return recv(mSocket, &packet, sizeof(packet), flags);
    }
    void close() { mSocket.reset(); }

  private:
    android::base::unique_fd mSocket;
};
