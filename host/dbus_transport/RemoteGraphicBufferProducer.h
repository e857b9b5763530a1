#pragma once

#include "ProxyLink.h"
#include "RemoteProducer.h"

namespace vel::dbus_transport {

/**
 * The producer's end of a buffer queue in another process: the queue's operations go over a channel, death
 * and the reference over the bus. The queue's process keeps the queue for as long as this proxy lives, and
 * disconnects what this process had connected when it dies.
 */
class RemoteGraphicBufferProducer final : public queue_channel::RemoteProducer {
  public:
    using Recipient = android::hardware::hidl_death_recipient;
    using AnwBuffer = android::hardware::media::V1_0::AnwBuffer;

    /**
     * Takes a reference over that the target's process has counted already. Without a channel, which is
     * logged, every operation of the queue fails with DEAD_OBJECT.
     */
    RemoteGraphicBufferProducer(DesktopTransport& transport, const RemoteObject& target);
    ~RemoteGraphicBufferProducer() override;

    Return<void> ping() override { return mLink.ping(); }
    Return<bool> linkToDeath(const android::sp<Recipient>& recipient, uint64_t cookie) override {
        return mLink.linkToDeath(recipient, cookie);
    }
    Return<bool> unlinkToDeath(const android::sp<Recipient>& recipient) override {
        return mLink.unlinkToDeath(recipient);
    }

    /** No adapter uses these, and they do not cross: UNKNOWN_TRANSACTION. */
    Return<int32_t> detachBuffer(int32_t) override { return unknownOperation(); }
    Return<void> detachNextBuffer(detachNextBuffer_cb) override { return unknownOperation(); }
    Return<void> attachBuffer(const AnwBuffer&, attachBuffer_cb) override { return unknownOperation(); }
    Return<int32_t> setSidebandStream(const hidl_handle&) override { return unknownOperation(); }
    Return<void> allocateBuffers(uint32_t, uint32_t, PixelFormat, uint32_t) override {
        return unknownOperation();
    }
    Return<int32_t> allowAllocation(bool) override { return unknownOperation(); }
    Return<int32_t> setGenerationNumber(uint32_t) override { return unknownOperation(); }
    Return<int32_t> setSharedBufferMode(bool) override { return unknownOperation(); }
    Return<int32_t> setAutoRefresh(bool) override { return unknownOperation(); }
    Return<void> getLastQueuedBuffer(getLastQueuedBuffer_cb) override { return unknownOperation(); }
    Return<void> getFrameTimestamps(getFrameTimestamps_cb) override { return unknownOperation(); }

  private:
    ProxyLink mLink;
};

}  // namespace vel::dbus_transport
