#pragma once

#include <gui/IConsumerListener.h>
#include <stdint.h>
#include <ui/Fence.h>
#include <ui/PixelFormat.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/String8.h>
#include <utils/Timers.h>

namespace android {

class BufferItem;

/** The end of a buffer queue that takes frames. Calls may come from any thread and never block on frames. */
class IGraphicBufferConsumer : public virtual RefBase {
  public:
    enum {
        STALE_BUFFER_SLOT = 1,
        NO_BUFFER_AVAILABLE,
        PRESENT_LATER,
    };

    /**
     * Takes the oldest queued frame. NO_BUFFER_AVAILABLE when none waits; INVALID_OPERATION when one more
     * than the set maximum is acquired already. expectedPresent other than 0 ends the process.
     */
    virtual status_t acquireBuffer(BufferItem* item, nsecs_t expectedPresent) = 0;

    /**
     * Gives an acquired frame's slot back. STALE_BUFFER_SLOT when the slot was reset since; BAD_VALUE for a
     * slot out of range or not acquired, and for a null fence.
     */
    virtual status_t releaseBuffer(int slot, uint64_t frameNumber, const sp<Fence>& releaseFence) = 0;

    /** Makes the queue usable by producers. NO_INIT: abandoned; BAD_VALUE: null listener. */
    virtual status_t consumerConnect(const sp<IConsumerListener>& listener, bool controlledByApp) = 0;

    /** Abandons the queue for good: frames are dropped, producers get NO_INIT. BAD_VALUE: not connected. */
    virtual status_t consumerDisconnect() = 0;

    /** BAD_VALUE for a zero. What producers get that ask for 0 x 0; 1 x 1 at first. */
    virtual status_t setDefaultBufferSize(uint32_t w, uint32_t h) = 0;

    /**
     * 1..64. BAD_VALUE out of range, below the acquired maximum or with too few free slots to drop;
     * INVALID_OPERATION while a producer is connected.
     */
    virtual status_t setMaxBufferCount(int bufferCount) = 0;

    /**
     * 1..62, 1 at first. BAD_VALUE out of range, below what is acquired now or too much for the queue;
     * NO_INIT: abandoned. The slots that this adds are not offered to a dequeue that waits already.
     */
    virtual status_t setMaxAcquiredBufferCount(int maxAcquiredBuffers) = 0;

    virtual status_t setConsumerName(const String8& name) = 0;

    /** What producers get that ask for format 0; RGBA_8888 at first. */
    virtual status_t setDefaultBufferFormat(PixelFormat defaultFormat) = 0;

    /** Takes the place of HAL_DATASPACE_UNKNOWN in queued frames. */
    virtual status_t setDefaultBufferDataSpace(android_dataspace defaultDataSpace) = 0;

    /** Added to the usage of every buffer that is dequeued from now on. */
    virtual status_t setConsumerUsageBits(uint64_t usage) = 0;

  protected:
    ~IGraphicBufferConsumer() override = default;
};

}  // namespace android
