#include "ProducerSlots.h"

#include <gui/IProducerListener.h>
#include <system/graphics.h>
#include <system/window.h>
#include <ui/Fence.h>
#include <ui/Rect.h>

#include <cerrno>

using android::Fence;
using android::GraphicBuffer;
using android::IGraphicBufferProducer;
using android::sp;
using android::status_t;

namespace producer_slots {

namespace {

constexpr int kApi = NATIVE_WINDOW_API_CAMERA;
constexpr int kMaxDequeuedBuffers = 6;
constexpr int kFenceWaitMs = 100;

// As unsigned, so that a negative slot is outside too.
bool isCached(int slot) {
    return static_cast<unsigned>(slot) < kCachedSlotCount;
}

// False when the slot cannot be used. It is not given back: a queue that runs out of slots fails a dequeue
// once a frame was queued since the connect, and the new connection frees them all. Before that the dequeue
// after the last free slot blocks.
bool fetchBuffer(IGraphicBufferProducer& producer, int slot, CachedBuffers& cache, const Log& log) {
    if (!isCached(slot)) {
        log.slotsExhausted();
        return false;
    }
    sp<GraphicBuffer> buffer;
    if (producer.requestBuffer(slot, &buffer) != android::NO_ERROR) {
        log.requestFailed();
        return false;
    }
    log.reallocated(slot);
    cache[slot] = buffer;
    return true;
}

// Compared with the object NO_FENCE: any other fence is waited for, the invalid ones of adapters included.
// Only a wait that ran out of time is late.
bool isLate(const sp<Fence>& fence) {
    if (fence == nullptr || fence == Fence::NO_FENCE) return false;
    return fence->wait(kFenceWaitMs) == -ETIME;
}

}  // namespace

void connect(IGraphicBufferProducer& producer) {
    IGraphicBufferProducer::QueueBufferOutput output;
    producer.connect(nullptr, kApi, false, &output);
    producer.setMaxDequeuedBufferCount(kMaxDequeuedBuffers);
}

void reset(IGraphicBufferProducer& producer) {
    producer.setMaxDequeuedBufferCount(0);
    producer.setMaxDequeuedBufferCount(kMaxDequeuedBuffers);
}

void disconnect(sp<IGraphicBufferProducer>& producer, const Log& log) {
    if (producer == nullptr) return;
    const status_t status = producer->disconnect(kApi, IGraphicBufferProducer::DisconnectMode::Api);
    if (status != android::NO_ERROR) log.disconnectFailed(status);
    producer = nullptr;
}

Dequeued dequeue(IGraphicBufferProducer& producer, const BufferShape& shape, CachedBuffers& cache,
                 const Log& log, int32_t& slot, sp<GraphicBuffer>& buffer) {
    int freeSlot = -1;
    sp<Fence> fence;
    uint64_t age = 0;
    const status_t status =
        producer.dequeueBuffer(&freeSlot, &fence, shape.width, shape.height,
                               static_cast<android::PixelFormat>(shape.format), shape.usage, &age, nullptr);
    if (status == IGraphicBufferProducer::BUFFER_NEEDS_REALLOCATION) {
        if (!fetchBuffer(producer, freeSlot, cache, log)) return Dequeued::NO_BUFFER;
    } else if (status != android::NO_ERROR) {
        log.dequeueFailed(status);
        return Dequeued::QUEUE_FAILED;
    }
    if (isLate(fence)) {
        log.fenceLate();
        producer.cancelBuffer(freeSlot, fence);
        return Dequeued::NO_BUFFER;
    }
    slot = freeSlot;
    buffer = isCached(freeSlot) ? cache[freeSlot] : nullptr;
    return Dequeued::LENT;
}

void queue(const sp<IGraphicBufferProducer>& producer, int32_t slot, uint32_t width, uint32_t height,
           int64_t timestampNs, const Log& log) {
    if (producer == nullptr) {
        log.queueFailed();
        return;
    }
    // The standard alone, without transfer or range: what the applications at the other end expect.
    const IGraphicBufferProducer::QueueBufferInput input(
        timestampNs, false, HAL_DATASPACE_STANDARD_BT601_625, android::Rect(width, height),
        NATIVE_WINDOW_SCALING_MODE_SCALE_TO_WINDOW, 0, Fence::NO_FENCE);
    IGraphicBufferProducer::QueueBufferOutput output;
    if (producer->queueBuffer(slot, input, &output) != android::NO_ERROR) log.queueFailed();
}

}  // namespace producer_slots
