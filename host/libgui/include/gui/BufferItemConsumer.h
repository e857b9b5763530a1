#pragma once

#include <gui/ConsumerBase.h>

namespace android {

/** A consumer that hands out whole frames for CPU use. */
class BufferItemConsumer : public ConsumerBase {
  public:
    enum { DEFAULT_MAX_BUFFERS = -1 };
    enum { INVALID_BUFFER_SLOT = BufferQueue::INVALID_BUFFER_SLOT };
    enum { NO_BUFFER_AVAILABLE = BufferQueue::NO_BUFFER_AVAILABLE };

    /**
     * bufferCount is how many frames may be acquired at once, -1 for the queue's own; a refused count ends
     * the process.
     */
    BufferItemConsumer(const sp<IGraphicBufferConsumer>& consumer, uint64_t consumerUsage,
                       int bufferCount = DEFAULT_MAX_BUFFERS, bool controlledByApp = false);

    /**
     * Takes the oldest frame; with waitForFence it waits for the frame's fence without limit, keeping other
     * calls of this consumer waiting. Statuses of IGraphicBufferConsumer::acquireBuffer, BAD_VALUE for null,
     * NO_INIT once abandoned.
     */
    status_t acquireBuffer(BufferItem* item, nsecs_t presentWhen, bool waitForFence = true);

    /**
     * Gives a frame back; its producer waits for the frame's own fence and for this one before it writes.
     * BAD_VALUE for a null fence.
     */
    status_t releaseBuffer(const BufferItem& item, const sp<Fence>& releaseFence = Fence::NO_FENCE);
};

}  // namespace android
