#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "Packet.h"

namespace vel::queue_channel {

/** What is known of another process that uses a producer of this one, over all its channels to it. */
struct Client {
    std::string name;  // as vel::host::callingProcess() tells it
    /** Once false, its requests are not carried out, and a slot that it would have got is given back. */
    std::atomic<bool> isAlive{true};
    std::atomic<bool> hasConnected{false};  // at some time

    /** After its death: disconnects the producer if it is this client that is connected. */
    void disconnectFrom(IGraphicBufferProducer& producer) const;
};

/**
 * The queue's end of a channel: carries requests out on a producer of this process and sends the replies.
 *
 * Each of the channel's threads waits for a request, sees to it that another one waits for the next, and
 * carries it out; so a dequeue may keep its thread while others pass. Up to four stay and wait. There are at
 * most kMaxThreads: the last one answers a dequeue by WOULD_BLOCK. They are detached.
 *
 * The channel ends with its client, or, which is logged, by a packet that makes no sense or when replies are
 * left unread. It keeps the producer until then, and until the last dequeue has ended.
 */
class ProducerServer : public std::enable_shared_from_this<ProducerServer> {
  public:
    static constexpr int kMaxThreads = kSlotCount + 1;

    /** Starts a channel and returns the client's end; below 0 without descriptors or threads left. */
    static android::base::unique_fd open(const android::sp<IGraphicBufferProducer>& producer,
                                         const std::shared_ptr<Client>& client);

    ProducerServer(const android::sp<IGraphicBufferProducer>& producer, const std::shared_ptr<Client>& client,
                   android::base::unique_fd socket)
        : mProducer(producer), mClient(client), mSocket(std::move(socket)) {}

  private:
    using Return = android::hardware::Return<void>;
    using hidl_handle = android::hardware::hidl_handle;
    using QueueBufferOutput = IGraphicBufferProducer::QueueBufferOutput;
    struct Answer;

    bool addThreadLocked();
    void serve();
    bool leaveReader();
    void becomeReader();
    bool mayStay();
    void carryOut(const Request& request, const hidl_handle& fence, bool mayWait);
    Return call(const Request& request, const hidl_handle& fence, Answer& answer);
    Return requestBuffer(const Request& request, Answer& answer);
    Return dequeueBuffer(const Request& request, Answer& answer);
    Return queueBuffer(const Request& request, const hidl_handle& fence, Answer& answer);
    Return connect(const Request& request, Answer& answer);
    Return ask(const Request& request, Answer& answer);
    void tellOutput(int32_t status, const QueueBufferOutput& output, Answer& answer);
    Return tell(android::hardware::Return<int32_t> status, Answer& answer);
    bool respond(Answer& answer, int32_t status, const hidl_handle& handle = {});
    void end(const char* reason);

    const android::sp<IGraphicBufferProducer> mProducer;
    const std::shared_ptr<Client> mClient;
    const android::base::unique_fd mSocket;

    std::mutex mLock;  // guards the fields below
    int mThreads = 0;
    int mReaders = 0;  // threads that wait for a request, or will once their reply is sent
    bool mHasEnded = false;
};

}  // namespace vel::queue_channel
