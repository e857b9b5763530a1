#pragma once

#include <gui/IGraphicBufferProducer.h>
#include <ui/GraphicBuffer.h>
#include <utils/StrongPointer.h>

#include <cstddef>
#include <cstdint>

/**
 * How frames go out through somebody else's buffer queue: connecting, dequeueing into a cache of slots,
 * waiting for a late fence, queueing. The frame paths share these steps and differ in their log lines, their
 * bookkeeping and in how they recover. The queue is a peer's: slots and flags that it answers with are not
 * trusted.
 */
namespace producer_slots {

constexpr size_t kCachedSlotCount = 7;  // slots 0..6; six may be lent, and the queue keeps one
using CachedBuffers = android::sp<android::GraphicBuffer>[kCachedSlotCount];

/** What a path says when something happens. No entry is null. */
struct Log {
    void (*slotsExhausted)();
    void (*requestFailed)();
    void (*reallocated)(int slot);
    void (*dequeueFailed)(android::status_t status);
    void (*fenceLate)();
    void (*queueFailed)();
    void (*disconnectFailed)(android::status_t status);
};

struct BufferShape {
    uint32_t width;   // pixels
    uint32_t height;  // pixels
    uint32_t format;  // platform pixel format
    uint64_t usage;   // GRALLOC_USAGE_*
};

enum class Dequeued {
    LENT,          // the slot is lent, its buffer may be null
    NO_BUFFER,     // none this time; what is lent stays as it was
    QUEUE_FAILED,  // the connection has to be made anew
};

/**
 * Connects as the camera and asks for six lent buffers. Neither status matters: a queue that refused shows it
 * at the next dequeue.
 */
void connect(android::IGraphicBufferProducer& producer);

/** Disconnects and drops the producer, whatever the queue says; nothing when it is null. */
void disconnect(android::sp<android::IGraphicBufferProducer>& producer, const Log& log);

/**
 * Asks the queue to allow no lent buffer and then six again; neither status matters. That is the whole reset:
 * a queue that refuses to go below what is lent keeps these slots lent until a disconnect.
 */
void reset(android::IGraphicBufferProducer& producer);

/**
 * Takes a free slot of the queue, fetches its buffer into the cache when the queue reallocated it, and waits
 * up to 100 ms until the buffer may be written; a later one is cancelled. slot and buffer are written for
 * LENT only: the buffer is null when the cache has none for the slot or the slot lies outside it. May block
 * without limit while no slot is free, be they the consumer's or lent.
 */
Dequeued dequeue(android::IGraphicBufferProducer& producer, const BufferShape& shape, CachedBuffers& cache,
                 const Log& log, int32_t& slot, android::sp<android::GraphicBuffer>& buffer);

/** Queues the slot as a whole frame of the given size. A missing producer counts as a failed queue. */
void queue(const android::sp<android::IGraphicBufferProducer>& producer, int32_t slot, uint32_t width,
           uint32_t height, int64_t timestampNs, const Log& log);

}  // namespace producer_slots
