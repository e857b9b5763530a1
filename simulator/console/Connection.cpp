#include "Connection.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace vel::sim {

namespace {

// What of the events there is, or 0 when the limit passes.
int waitFor(int socket, short events, std::chrono::milliseconds limit) {
    pollfd source{socket, events, 0};
    int ready = 0;
    do {
        ready = poll(&source, 1, static_cast<int>(limit.count()));
    } while (ready < 0 && errno == EINTR);
    return ready > 0 ? source.revents : 0;
}

void describe(int (*name)(int, sockaddr*, socklen_t*), int socket, std::string& ip, int& port) {
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    std::array<char, INET_ADDRSTRLEN> text{};
    if (name(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0 || address.sin_family != AF_INET)
        return;
    ip = inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
    port = ntohs(address.sin_port);
}

}  // namespace

Connection::~Connection() {
    shutdown(mSocket, SHUT_RDWR);
    close(mSocket);
}

bool Connection::is_readable() const {
    return mBufferStart < mBufferEnd || waitFor(mSocket, POLLIN, mReadLimit) != 0;
}

bool Connection::is_writable() const {
    const int found = waitFor(mSocket, POLLOUT | POLLRDHUP, mWriteLimit);
    return (found & POLLOUT) != 0 && (found & (POLLRDHUP | POLLHUP | POLLERR)) == 0;
}

ssize_t Connection::read(char* to, size_t size) {
    if (!is_readable()) return -1;
    if (mBufferStart == mBufferEnd) {
        const ssize_t got = recv(mSocket, mBuffer.data(), mBuffer.size(), MSG_DONTWAIT);
        if (got <= 0) return got;
        mBufferStart = 0;
        mBufferEnd = static_cast<size_t>(got);
    }
    const size_t count = std::min(size, mBufferEnd - mBufferStart);
    std::copy_n(mBuffer.data() + mBufferStart, count, to);
    mBufferStart += count;
    return static_cast<ssize_t>(count);
}

ssize_t Connection::write(const char* from, size_t size) {
    if ((waitFor(mSocket, POLLOUT, mWriteLimit) & POLLOUT) == 0) return -1;
    return send(mSocket, from, size, MSG_DONTWAIT | MSG_NOSIGNAL);
}

void Connection::get_remote_ip_and_port(std::string& ip, int& port) const {
    describe(getpeername, mSocket, ip, port);
}

void Connection::get_local_ip_and_port(std::string& ip, int& port) const {
    describe(getsockname, mSocket, ip, port);
}

}  // namespace vel::sim
