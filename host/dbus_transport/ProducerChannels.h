#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "BusSession.h"
#include "ProducerServer.h"
#include "WorkerPool.h"

namespace vel::dbus_transport {

/**
 * Which processes use which producers of this one, each over channels of its own. A process that dies while
 * it is connected to a producer is disconnected from it, so that its slots are free and another may connect.
 * The queue itself would not notice: it sees all processes as this one. Any thread; nothing blocks.
 */
class ProducerChannels {
  public:
    using IGraphicBufferProducer = queue_channel::IGraphicBufferProducer;

    /** The pool is borrowed for good. */
    explicit ProducerChannels(WorkerPool& workers) : mWorkers(workers) {}
    ProducerChannels(const ProducerChannels&) = delete;
    ProducerChannels& operator=(const ProducerChannels&) = delete;

    /**
     * A new channel to the producer for a process on the bus: the end that it is to get, or one below 0 when
     * the process has 64 to this producer, or there are no descriptors or threads left.
     */
    android::base::unique_fd open(SessionId session, const std::string& busName,
                                  const android::sp<IGraphicBufferProducer>& producer);

    void onPeerDied(SessionId session, const std::string& busName);
    void onSessionEnded(SessionId session);

  private:
    struct Use {
        SessionId session;
        std::string busName;
        android::wp<IGraphicBufferProducer> producer;
        std::shared_ptr<queue_channel::Client> client;
    };

    std::shared_ptr<queue_channel::Client> clientOf(SessionId session, const std::string& busName,
                                                    const android::wp<IGraphicBufferProducer>& producer);
    void forgetDestroyed();
    void endIf(const std::function<bool(const Use&)>& isDead);

    WorkerPool& mWorkers;

    std::mutex mLock;  // guards the field below
    std::vector<Use> mUses;
};

}  // namespace vel::dbus_transport
