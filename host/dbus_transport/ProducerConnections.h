#pragma once

#include <android/hardware/graphics/bufferqueue/1.0/IGraphicBufferProducer.h>

#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "BusSession.h"

namespace vel::dbus_transport {

/**
 * Which process is connected to which local producer, so that its death can end the connection. A queue has
 * one connection at a time. Any thread.
 */
class ProducerConnections {
  public:
    using IGraphicBufferProducer = android::hardware::graphics::bufferqueue::V1_0::IGraphicBufferProducer;

    struct Connection {
        SessionId session = 0;
        std::string busName;  // of the connected process
        android::wp<IGraphicBufferProducer> producer;
        int32_t api = 0;
    };

    /** The connection takes the place of the one before. */
    void put(const std::string& path, Connection connection);
    /** The number of the producer's connection, 0 without; each has another one. */
    uint64_t numberAt(const std::string& path) const;
    /** Forgets that connection, but no later one. */
    void forget(const std::string& path, uint64_t number);
    /** Every connection of a process, or of all processes of a session, which are forgotten. */
    std::vector<Connection> takeAllOf(SessionId session, const std::string& busName);
    std::vector<Connection> takeAll(SessionId session);

  private:
    template <typename Predicate>
    std::vector<Connection> takeIf(Predicate predicate);

    mutable std::mutex mLock;                                             // guards the fields below
    std::map<std::string, std::pair<uint64_t, Connection>> mConnections;  // by path, which no session shares
    uint64_t mLastNumber = 0;
};

}  // namespace vel::dbus_transport
