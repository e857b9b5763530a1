#pragma once

#include <android/hardware/graphics/bufferqueue/1.0/IGraphicBufferProducer.h>
#include <gui/IGraphicBufferProducer.h>
#include <gui/IProducerListener.h>

namespace android {
namespace hardware {
namespace graphics {
namespace bufferqueue {
namespace V1_0 {
namespace utils {

using HGraphicBufferProducer = ::android::hardware::graphics::bufferqueue::V1_0::IGraphicBufferProducer;

/**
 * A HIDL producer, of this or another process, presented as a platform producer. Statuses pass through
 * unchanged; a failed transport is DEAD_OBJECT when the peer is gone and UNKNOWN_ERROR otherwise. Usage is
 * cut to 32 bits. Its end neither disconnects nor cancels anything.
 */
struct H2BGraphicBufferProducer : public ::android::IGraphicBufferProducer {
    explicit H2BGraphicBufferProducer(sp<HGraphicBufferProducer> const& base);

    /** *buf is a new buffer in every case, zero-sized on failure; its id is that of the peer's. */
    status_t requestBuffer(int slot, sp<GraphicBuffer>* buf) override;
    status_t setMaxDequeuedBufferCount(int maxDequeuedBuffers) override;
    status_t setAsyncMode(bool async) override;
    /** *fence is a new fence in every case, never NO_FENCE; *outBufferAge is always 0. */
    status_t dequeueBuffer(int* slot, sp<Fence>* fence, uint32_t w, uint32_t h, ::android::PixelFormat format,
                           uint64_t usage, uint64_t* outBufferAge,
                           ::android::FrameEventHistoryDelta* outTimestamps) override;
    /** A null fence ends the process; output->maxBufferCount is left alone. */
    status_t queueBuffer(int slot, const QueueBufferInput& input, QueueBufferOutput* output) override;
    status_t cancelBuffer(int slot, const sp<Fence>& fence) override;
    int query(int what, int* value) override;
    /** A listener other than null ends the process: there is no adapter for it here. */
    status_t connect(const sp<::android::IProducerListener>& listener, int api, bool producerControlledByApp,
                     QueueBufferOutput* output) override;
    status_t disconnect(int api, DisconnectMode mode = DisconnectMode::Api) override;
    String8 getConsumerName() const override;
    status_t setDequeueTimeout(nsecs_t timeout) override;
    status_t getUniqueId(uint64_t* outId) const override;

  private:
    const sp<HGraphicBufferProducer> mBase;
};

}  // namespace utils
}  // namespace V1_0
}  // namespace bufferqueue
}  // namespace graphics
}  // namespace hardware
}  // namespace android
