#pragma once

#include <httplib.h>

#include <array>
#include <chrono>
#include <string>

namespace vel::sim {

/**
 * A browser's connection, for the HTTP library. Its own would not tell that the other end has gone while
 * there is nothing to write. One thread.
 */
class Connection : public httplib::Stream {
  public:
    /** Takes the socket over. Waits for at most so long for the browser, each time. */
    Connection(int socket, std::chrono::milliseconds readLimit, std::chrono::milliseconds writeLimit)
        : mSocket(socket), mReadLimit(readLimit), mWriteLimit(writeLimit) {}
    ~Connection() override;

    bool is_readable() const override;
    /** False also once the browser has closed the connection. */
    bool is_writable() const override;
    ssize_t read(char* to, size_t size) override;
    ssize_t write(const char* from, size_t size) override;
    void get_remote_ip_and_port(std::string& ip, int& port) const override;
    void get_local_ip_and_port(std::string& ip, int& port) const override;
    socket_t socket() const override { return mSocket; }

  private:
    const int mSocket;
    const std::chrono::milliseconds mReadLimit;
    const std::chrono::milliseconds mWriteLimit;
    std::array<char, 4096> mBuffer{};  // the library reads headers byte by byte
    size_t mBufferStart = 0;
    size_t mBufferEnd = 0;
};

}  // namespace vel::sim
