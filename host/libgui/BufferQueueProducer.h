#pragma once

#include <gui/IGraphicBufferProducer.h>

#include <condition_variable>
#include <mutex>

#include "BufferQueueCore.h"

namespace android {

/** The filling end of a queue. */
class BufferQueueProducer : public IGraphicBufferProducer {
  public:
    explicit BufferQueueProducer(const sp<BufferQueueCore>& core);

    status_t requestBuffer(int slot, sp<GraphicBuffer>* buf) override;
    status_t setMaxDequeuedBufferCount(int maxDequeuedBuffers) override;
    status_t setAsyncMode(bool async) override;
    status_t dequeueBuffer(int* outSlot, sp<Fence>* outFence, uint32_t w, uint32_t h, PixelFormat format,
                           uint64_t usage, uint64_t* outBufferAge,
                           FrameEventHistoryDelta* outTimestamps) override;
    status_t queueBuffer(int slot, const QueueBufferInput& input, QueueBufferOutput* output) override;
    status_t cancelBuffer(int slot, const sp<Fence>& fence) override;
    int query(int what, int* value) override;
    status_t connect(const sp<IProducerListener>& listener, int api, bool producerControlledByApp,
                     QueueBufferOutput* output) override;
    status_t disconnect(int api, DisconnectMode mode) override;
    String8 getConsumerName() const override;
    status_t setDequeueTimeout(nsecs_t timeout) override;
    status_t getUniqueId(uint64_t* outId) const override;
    status_t getConsumerUsage(uint64_t* outUsage) const override;

  private:
    /** Who hears of a queued frame, in the order of queueing. */
    struct FrameNotice {
        sp<IConsumerListener> listener;
        BufferItem item;
        bool replaced;
        uint64_t ticket;
    };

    status_t checkUsableLocked() const;
    status_t checkDequeuedLocked(int slot) const;
    status_t waitForFreeSlotLocked(std::unique_lock<std::mutex>& lock, int* outSlot);
    status_t checkQueueableLocked(int slot, const QueueBufferInput& input) const;
    BufferItem queueSlotLocked(int slot, const QueueBufferInput& input);
    void fillOutputLocked(QueueBufferOutput* output) const;
    void deliver(const FrameNotice& notice);

    const sp<BufferQueueCore> mCore;
    uint64_t mNextTicket = 0;  // guarded by the core's mutex
    std::mutex mNoticeMutex;   // held while a notice is delivered
    std::condition_variable mNoticeCondition;
    uint64_t mCurrentTicket = 0;  // guarded by mNoticeMutex
};

}  // namespace android
