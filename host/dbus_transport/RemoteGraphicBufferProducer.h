#pragma once

#include "ProducerWire.h"
#include "ProxyLink.h"

namespace vel::dbus_transport {

/**
 * The producer's end of a buffer queue in another process. Statuses and flags are the queue's own; memory
 * and fences arrive as descriptors, of which each reply's are closed when the reply function has returned.
 *
 * Calls block until the queue answers, a dequeue therefore as long as the queue lets it wait; they hold no
 * lock and may come from any thread, several at a time. A call fails with DEAD_OBJECT once the queue's
 * process or the bus is gone and with FAILED_TRANSACTION when it cannot be carried. The queue's process keeps
 * the queue for as long as this proxy lives, and disconnects what this process had connected when it dies.
 */
class RemoteGraphicBufferProducer final : public IGraphicBufferProducer {
  public:
    template <typename T>
    using Return = android::hardware::Return<T>;
    using hidl_handle = android::hardware::hidl_handle;
    using AnwBuffer = android::hardware::media::V1_0::AnwBuffer;
    using PixelFormat = android::hardware::graphics::common::V1_0::PixelFormat;
    using IProducerListener = android::hardware::graphics::bufferqueue::V1_0::IProducerListener;
    using Recipient = android::hardware::hidl_death_recipient;

    /** Takes a reference over that the target's process has counted already. */
    RemoteGraphicBufferProducer(DesktopTransport& transport, const RemoteObject& target);
    ~RemoteGraphicBufferProducer() override;

    bool isRemote() const override { return true; }
    Return<void> ping() override { return mLink.ping(); }
    Return<bool> linkToDeath(const android::sp<Recipient>& recipient, uint64_t cookie) override {
        return mLink.linkToDeath(recipient, cookie);
    }
    Return<bool> unlinkToDeath(const android::sp<Recipient>& recipient) override {
        return mLink.unlinkToDeath(recipient);
    }

    Return<void> requestBuffer(int32_t slot, requestBuffer_cb _hidl_cb) override;
    Return<int32_t> setMaxDequeuedBufferCount(int32_t maxDequeuedBuffers) override;
    Return<int32_t> setAsyncMode(bool async) override;
    Return<void> dequeueBuffer(uint32_t width, uint32_t height, PixelFormat format, uint32_t usage,
                               bool getFrameTimestamps, dequeueBuffer_cb _hidl_cb) override;
    Return<void> queueBuffer(int32_t slot, const QueueBufferInput& input, queueBuffer_cb _hidl_cb) override;
    Return<int32_t> cancelBuffer(int32_t slot, const hidl_handle& fence) override;
    Return<void> query(int32_t what, query_cb _hidl_cb) override;
    /** A listener other than null does not cross: UNKNOWN_TRANSACTION. */
    Return<void> connect(const android::sp<IProducerListener>& listener, int32_t api,
                         bool producerControlledByApp, connect_cb _hidl_cb) override;
    Return<int32_t> disconnect(int32_t api, DisconnectMode mode) override;
    Return<int32_t> allowAllocation(bool allow) override;
    Return<int32_t> setGenerationNumber(uint32_t generationNumber) override;
    Return<void> getConsumerName(getConsumerName_cb _hidl_cb) override;
    Return<int32_t> setDequeueTimeout(int64_t timeoutNs) override;
    Return<void> getUniqueId(getUniqueId_cb _hidl_cb) override;

    /** No adapter uses these, and they do not cross: UNKNOWN_TRANSACTION. */
    Return<int32_t> detachBuffer(int32_t) override { return unknownOperation(); }
    Return<void> detachNextBuffer(detachNextBuffer_cb) override { return unknownOperation(); }
    Return<void> attachBuffer(const AnwBuffer&, attachBuffer_cb) override { return unknownOperation(); }
    Return<int32_t> setSidebandStream(const hidl_handle&) override { return unknownOperation(); }
    Return<void> allocateBuffers(uint32_t, uint32_t, PixelFormat, uint32_t) override {
        return unknownOperation();
    }
    Return<int32_t> setSharedBufferMode(bool) override { return unknownOperation(); }
    Return<int32_t> setAutoRefresh(bool) override { return unknownOperation(); }
    Return<void> getLastQueuedBuffer(getLastQueuedBuffer_cb) override { return unknownOperation(); }
    Return<void> getFrameTimestamps(getFrameTimestamps_cb) override { return unknownOperation(); }

  private:
    /** Calls the method with the arguments and passes the results to the reply function. */
    template <typename... Results, typename ReplyFunction, typename... Arguments>
    Return<void> ask(const char* method, const ReplyFunction& reply, const Arguments&... arguments);
    /** The same for a method whose only result is a status. */
    template <typename... Arguments>
    Return<int32_t> askStatus(const char* method, const Arguments&... arguments);

    ProxyLink mLink;
};

}  // namespace vel::dbus_transport
