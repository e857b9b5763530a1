#pragma once

#include <gui/FrameTimestamps.h>
#include <gui/HdrMetadata.h>
#include <stdint.h>
#include <ui/BufferQueueDefs.h>
#include <ui/Fence.h>
#include <ui/GraphicBuffer.h>
#include <ui/Rect.h>
#include <ui/Region.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/String8.h>

namespace android {

/** Declared only, as on a device: who passes one, be it null, includes its header. */
class IProducerListener;
class NativeHandle;

/**
 * The end of a buffer queue that fills buffers: dequeue one, request its memory once per slot, write, queue.
 * Calls may come from any thread. Operations with a body here are optional: their default ends the process.
 */
class IGraphicBufferProducer : public virtual RefBase {
  public:
    /** Flags that dequeueBuffer answers with; never negative. */
    enum {
        BUFFER_NEEDS_REALLOCATION = 1,  // requestBuffer must be called for this slot
        RELEASE_ALL_BUFFERS = 2,        // every buffer the producer remembers is void
    };

    enum class DisconnectMode {
        Api,       // the given api of the connected process
        AllLocal,  // whatever the calling process connected; 0 when it is another one's
    };

    struct QueueBufferInput {
        QueueBufferInput(int64_t timestamp, bool isAutoTimestamp, android_dataspace dataSpace,
                         const Rect& crop, int scalingMode, uint32_t transform, const sp<Fence>& fence,
                         uint32_t sticky = 0, bool getFrameTimestamps = false)
            : timestamp(timestamp),
              isAutoTimestamp(isAutoTimestamp),
              dataSpace(dataSpace),
              crop(crop),
              scalingMode(scalingMode),
              transform(transform),
              stickyTransform(sticky),
              fence(fence),
              getFrameTimestamps(getFrameTimestamps) {}

        int64_t timestamp;  // ns
        int isAutoTimestamp;
        android_dataspace dataSpace;
        Rect crop;
        int scalingMode;  // NATIVE_WINDOW_SCALING_MODE_*
        uint32_t transform;
        uint32_t stickyTransform;
        sp<Fence> fence;  // signals when the frame has been written; never null
        Region surfaceDamage;
        bool getFrameTimestamps;
        HdrMetadata hdrMetadata;
    };

    struct QueueBufferOutput {
        QueueBufferOutput() = default;
        QueueBufferOutput(QueueBufferOutput&&) = default;
        QueueBufferOutput& operator=(QueueBufferOutput&&) = default;
        QueueBufferOutput(const QueueBufferOutput&) = delete;
        QueueBufferOutput& operator=(const QueueBufferOutput&) = delete;

        uint32_t width = 0;  // the queue's default size
        uint32_t height = 0;
        uint32_t transformHint = 0;
        uint32_t numPendingBuffers = 0;
        uint64_t nextFrameNumber = 0;
        FrameEventHistoryDelta frameTimestamps;
        bool bufferReplaced = false;
        int maxBufferCount = 0;  // set by connect alone
    };

    /**
     * Gives the memory of a dequeued slot; may be repeated. NO_INIT: abandoned or not connected. BAD_VALUE:
     * slot outside 0..63 or not dequeued.
     */
    virtual status_t requestBuffer(int slot, sp<GraphicBuffer>* buf) = 0;

    /**
     * How many buffers may be dequeued at once. NO_INIT: abandoned. BAD_VALUE: below 1, below what is
     * dequeued now, too much for the queue, or no slot is free to be dropped. Kept over disconnects.
     */
    virtual status_t setMaxDequeuedBufferCount(int maxDequeuedBuffers) = 0;

    /** True: dequeue never blocks and a queued frame replaces the one that still waits. */
    virtual status_t setAsyncMode(bool async);

    /**
     * Lends a slot of the given size (0 x 0: the queue's default), format (0: default) and at least the given
     * usage. 0 or flags on success, with a fence that is never null; the buffer may be written once it has
     * signalled. NO_INIT: abandoned or not connected. BAD_VALUE: one size is 0. INVALID_OPERATION: too many
     * dequeued. WOULD_BLOCK, TIMED_OUT: no slot in non-blocking mode or within the time set; otherwise the
     * call waits without limit. Else the allocation's status.
     */
    virtual status_t dequeueBuffer(int* slot, sp<Fence>* fence, uint32_t w, uint32_t h, PixelFormat format,
                                   uint64_t usage, uint64_t* outBufferAge,
                                   FrameEventHistoryDelta* outTimestamps) = 0;

    virtual status_t detachBuffer(int slot);
    virtual status_t detachNextBuffer(sp<GraphicBuffer>* outBuffer, sp<Fence>* outFence);
    virtual status_t attachBuffer(int* outSlot, const sp<GraphicBuffer>& buffer);

    /**
     * Hands a dequeued and requested slot to the consumer. On every error the slot stays dequeued. BAD_VALUE:
     * null fence, unknown scaling mode, slot not dequeued or never requested, crop outside the buffer.
     * NO_INIT: abandoned or not connected.
     */
    virtual status_t queueBuffer(int slot, const QueueBufferInput& input, QueueBufferOutput* output) = 0;

    /**
     * Gives a dequeued slot back unused; its next user waits for the fence. NO_INIT; BAD_VALUE: slot not
     * dequeued, null fence.
     */
    virtual status_t cancelBuffer(int slot, const sp<Fence>& fence) = 0;

    virtual int query(int what, int* value);

    /**
     * Makes the caller the producer through the given api (NATIVE_WINDOW_API_*). NO_INIT: abandoned or
     * without a consumer. BAD_VALUE: null output, already connected, unknown api.
     */
    virtual status_t connect(const sp<IProducerListener>& listener, int api, bool producerControlledByApp,
                             QueueBufferOutput* output) = 0;

    /**
     * Frees every slot, lent ones included; queued frames stay. Api -1 means the connected one, if any.
     * NO_INIT: not connected. BAD_VALUE: connected through another api. 0 on an abandoned queue.
     */
    virtual status_t disconnect(int api, DisconnectMode mode = DisconnectMode::Api) = 0;

    virtual status_t setSidebandStream(const sp<NativeHandle>& stream);
    virtual void allocateBuffers(uint32_t width, uint32_t height, PixelFormat format, uint64_t usage);
    virtual status_t allowAllocation(bool allow);
    virtual status_t setGenerationNumber(uint32_t generationNumber);
    virtual String8 getConsumerName() const;
    virtual status_t setSharedBufferMode(bool sharedBufferMode);
    virtual status_t setAutoRefresh(bool autoRefresh);

    /**
     * How long dequeueBuffer waits for a slot: ns, below 0 without limit. One that waits already goes on as
     * it began.
     */
    virtual status_t setDequeueTimeout(nsecs_t timeout);

    virtual status_t setLegacyBufferDrop(bool drop);
    virtual status_t getLastQueuedBuffer(sp<GraphicBuffer>* outBuffer, sp<Fence>* outFence,
                                         float outTransformMatrix[16]);
    virtual void getFrameTimestamps(FrameEventHistoryDelta* outDelta);
    virtual status_t getUniqueId(uint64_t* outId) const;
    virtual status_t getConsumerUsage(uint64_t* outUsage) const;
    virtual status_t setAutoPrerotation(bool autoPrerotation);

  protected:
    ~IGraphicBufferProducer() override = default;
};

}  // namespace android
