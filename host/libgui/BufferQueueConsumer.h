#pragma once

#include <gui/IGraphicBufferConsumer.h>

#include "BufferQueueCore.h"

namespace android {

/** The taking end of a queue. */
class BufferQueueConsumer : public IGraphicBufferConsumer {
  public:
    explicit BufferQueueConsumer(const sp<BufferQueueCore>& core);

    status_t acquireBuffer(BufferItem* item, nsecs_t expectedPresent) override;
    status_t releaseBuffer(int slot, uint64_t frameNumber, const sp<Fence>& releaseFence) override;
    status_t consumerConnect(const sp<IConsumerListener>& listener, bool controlledByApp) override;
    status_t consumerDisconnect() override;
    status_t setDefaultBufferSize(uint32_t w, uint32_t h) override;
    status_t setMaxBufferCount(int bufferCount) override;
    status_t setMaxAcquiredBufferCount(int maxAcquiredBuffers) override;
    status_t setConsumerName(const String8& name) override;
    status_t setDefaultBufferFormat(PixelFormat defaultFormat) override;
    status_t setDefaultBufferDataSpace(android_dataspace defaultDataSpace) override;
    status_t setConsumerUsageBits(uint64_t usage) override;

  private:
    const sp<BufferQueueCore> mCore;
};

}  // namespace android
