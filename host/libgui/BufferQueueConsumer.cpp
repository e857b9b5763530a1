#include "BufferQueueConsumer.h"

#include <gui/Absent.h>

#include <utility>

namespace android {

BufferQueueConsumer::BufferQueueConsumer(const sp<BufferQueueCore>& core) : mCore(core) {}

status_t BufferQueueConsumer::acquireBuffer(BufferItem* item, nsecs_t expectedPresent) {
    if (expectedPresent != 0) abortAbsent("acquireBuffer for a present time");
    std::lock_guard<std::mutex> lock(mCore->mutex);
    // One more than the maximum, so that a consumer can take the next frame before it gives back the last.
    if (mCore->countLocked(BufferSlot::State::ACQUIRED) >= mCore->maxAcquired + 1) return INVALID_OPERATION;
    if (mCore->queue.empty()) return NO_BUFFER_AVAILABLE;

    *item = std::move(mCore->queue.front());
    mCore->queue.pop_front();
    if (!item->mIsStale) {
        mCore->slots[item->mSlot].state = BufferSlot::State::ACQUIRED;
        mCore->slots[item->mSlot].fence = Fence::NO_FENCE;
    }
    mCore->dequeueCondition.notify_all();
    return NO_ERROR;
}

status_t BufferQueueConsumer::releaseBuffer(int slot, uint64_t frameNumber, const sp<Fence>& releaseFence) {
    if (slot < 0 || slot >= BufferQueueCore::kSlotCount || releaseFence == nullptr) return BAD_VALUE;
    sp<IProducerListener> listener;
    {
        std::lock_guard<std::mutex> lock(mCore->mutex);
        if (mCore->slots[slot].frameNumber != frameNumber) return STALE_BUFFER_SLOT;
        if (mCore->slots[slot].state != BufferSlot::State::ACQUIRED) return BAD_VALUE;
        mCore->releaseSlotLocked(slot, releaseFence);
        listener = mCore->producerListener;
    }
    if (listener != nullptr) listener->onBufferReleased();
    return NO_ERROR;
}

status_t BufferQueueConsumer::consumerConnect(const sp<IConsumerListener>& listener, bool controlledByApp) {
    if (listener == nullptr) return BAD_VALUE;
    std::lock_guard<std::mutex> lock(mCore->mutex);
    if (mCore->isAbandoned) return NO_INIT;
    mCore->consumerListener = listener;
    mCore->consumerControlledByApp = controlledByApp;
    return NO_ERROR;
}

status_t BufferQueueConsumer::consumerDisconnect() {
    std::lock_guard<std::mutex> lock(mCore->mutex);
    if (mCore->consumerListener == nullptr) return BAD_VALUE;
    mCore->isAbandoned = true;
    mCore->consumerListener = nullptr;
    mCore->queue.clear();
    mCore->freeAllBuffersLocked();
    mCore->dequeueCondition.notify_all();
    return NO_ERROR;
}

status_t BufferQueueConsumer::setDefaultBufferSize(uint32_t w, uint32_t h) {
    if (w == 0 || h == 0) return BAD_VALUE;
    std::lock_guard<std::mutex> lock(mCore->mutex);
    mCore->defaultWidth = w;
    mCore->defaultHeight = h;
    return NO_ERROR;
}

status_t BufferQueueConsumer::setMaxBufferCount(int bufferCount) {
    if (bufferCount < 1 || bufferCount > BufferQueueCore::kSlotCount) return BAD_VALUE;
    std::lock_guard<std::mutex> lock(mCore->mutex);
    if (mCore->connectedApi != BufferQueueCore::kNoApi) return INVALID_OPERATION;
    if (bufferCount < mCore->maxAcquired) return BAD_VALUE;
    const int delta = mCore->maxBufferCountLocked(mCore->asyncMode, mCore->dequeueCannotBlock, bufferCount) -
                      mCore->maxBufferCountLocked();
    if (!mCore->adjustAvailableSlotsLocked(delta)) return BAD_VALUE;
    mCore->maxBufferCount = bufferCount;
    return NO_ERROR;
}

status_t BufferQueueConsumer::setMaxAcquiredBufferCount(int maxAcquiredBuffers) {
    if (maxAcquiredBuffers < 1 || maxAcquiredBuffers > BufferQueueCore::kMaxMaxAcquired) return BAD_VALUE;
    sp<IConsumerListener> listener;
    {
        std::lock_guard<std::mutex> lock(mCore->mutex);
        if (mCore->isAbandoned) return NO_INIT;
        const int delta = maxAcquiredBuffers - mCore->maxAcquired;
        if (delta == 0) return NO_ERROR;
        if (mCore->countLocked(BufferSlot::State::ACQUIRED) > maxAcquiredBuffers) return BAD_VALUE;
        if (mCore->minUndequeuedCountLocked() + delta + mCore->maxDequeued > mCore->maxBufferCount)
            return BAD_VALUE;
        if (!mCore->adjustAvailableSlotsLocked(delta)) return BAD_VALUE;
        mCore->maxAcquired = maxAcquiredBuffers;
        if (delta < 0) listener = mCore->consumerListener;
    }
    if (listener != nullptr) listener->onBuffersReleased();
    return NO_ERROR;
}

status_t BufferQueueConsumer::setConsumerName(const String8& name) {
    std::lock_guard<std::mutex> lock(mCore->mutex);
    mCore->consumerName = name;
    return NO_ERROR;
}

status_t BufferQueueConsumer::setDefaultBufferFormat(PixelFormat defaultFormat) {
    std::lock_guard<std::mutex> lock(mCore->mutex);
    mCore->defaultFormat = defaultFormat;
    return NO_ERROR;
}

status_t BufferQueueConsumer::setDefaultBufferDataSpace(android_dataspace defaultDataSpace) {
    std::lock_guard<std::mutex> lock(mCore->mutex);
    mCore->defaultDataSpace = defaultDataSpace;
    return NO_ERROR;
}

status_t BufferQueueConsumer::setConsumerUsageBits(uint64_t usage) {
    std::lock_guard<std::mutex> lock(mCore->mutex);
    mCore->consumerUsage = usage;
    return NO_ERROR;
}

}  // namespace android
