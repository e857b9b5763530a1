#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "BusLoop.h"
#include "ObjectExporter.h"
#include "ProducerConnections.h"
#include "WorkerPool.h"

namespace sdbus {
class IObject;
}

namespace vel::dbus_transport {

/**
 * Serves this process's producers to other processes. Calls are read and answered on the loop's thread and
 * carried out on workers, where a dequeue may wait as long as it likes.
 *
 * A process that dies while it is connected to a producer is disconnected from it, so that its slots are free
 * and another may connect. The queue itself would not notice: it sees all processes as this one.
 */
class ProducerStub {
  public:
    using IGraphicBufferProducer = ProducerConnections::IGraphicBufferProducer;

    /** All are borrowed for good. */
    ProducerStub(BusLoop& loop, WorkerPool& workers, const ObjectExporter& exporter);
    ProducerStub(const ProducerStub&) = delete;
    ProducerStub& operator=(const ProducerStub&) = delete;

    /** On the loop's thread. The path is that of an exported producer. */
    void addMethods(sdbus::IObject& object, BusSession& session, const std::string& path);

    /**
     * To be called once the exporter has forgotten the references of the peer, or of the whole session. Do
     * not block.
     */
    void onPeerDied(SessionId session, const std::string& busName);
    void onSessionEnded(SessionId session);

    /** What one operation has replied, on its way to the loop's thread. */
    class Reply;

  private:
    ~ProducerStub() = default;  // never run

    /** Who calls which producer. */
    struct Call {
        SessionId session;
        std::string busName;
        std::string path;
        android::sp<IGraphicBufferProducer> producer;
    };
    using Return = android::hardware::Return<void>;
    // Carries an operation out whose arguments have been read.
    using Work = std::function<Return(const Call& call, Reply& reply)>;
    struct Method {
        const char* name;
        std::string arguments;  // D-Bus signatures
        std::string results;
        std::function<Work(sdbus::MethodCall&)> read;
    };

    std::vector<Method> methods();
    Return dequeueBuffer(const Call& call, Reply& reply, uint32_t width, uint32_t height, int32_t format,
                         uint32_t usage) const;
    Return connect(const Call& call, Reply& reply, int32_t api, bool producerControlledByApp);
    Return disconnect(const Call& call, Reply& reply, int32_t api, int32_t mode);

    void onCall(BusSession& session, const std::string& path, const Method& method,
                sdbus::MethodCall& message);
    void carryOut(const Call& call, const Work& work, BusSession::Ticket ticket);
    bool isCallerAlive(const Call& call) const;
    void endConnectionOfTheDead(const Call& call);
    void endLater(std::vector<ProducerConnections::Connection> connections);

    BusLoop& mLoop;
    WorkerPool& mWorkers;
    const ObjectExporter& mExporter;
    const std::vector<Method> mMethods;
    ProducerConnections mConnections;
};

}  // namespace vel::dbus_transport
