#include "BufferQueueProducer.h"

#include <hidl_host/CallingProcess.h>

#include <algorithm>
#include <chrono>
#include <tuple>
#include <utility>

namespace android {

namespace {

constexpr uint32_t kLayerCount = 1;
constexpr int kConnectedApi = -1;  // to disconnect: whichever is connected

bool isKnownApi(int api) {
    return api >= NATIVE_WINDOW_API_EGL && api <= NATIVE_WINDOW_API_CAMERA;
}

bool isKnownScalingMode(int mode) {
    return mode >= NATIVE_WINDOW_SCALING_MODE_FREEZE && mode <= NATIVE_WINDOW_SCALING_MODE_NO_SCALE_CROP;
}

// An empty crop lies inside every buffer.
bool cropFits(const Rect& crop, const GraphicBuffer& buffer) {
    const Rect bounds = buffer.getBounds();
    return crop.left >= 0 && crop.top >= 0 && crop.right <= bounds.right && crop.bottom <= bounds.bottom;
}

}  // namespace

BufferQueueProducer::BufferQueueProducer(const sp<BufferQueueCore>& core) : mCore(core) {}

status_t BufferQueueProducer::checkUsableLocked() const {
    return mCore->isAbandoned || mCore->connectedApi == BufferQueueCore::kNoApi ? NO_INIT : NO_ERROR;
}

status_t BufferQueueProducer::checkDequeuedLocked(int slot) const {
    if (slot < 0 || slot >= BufferQueueCore::kSlotCount) return BAD_VALUE;
    return mCore->slots[slot].state == BufferSlot::State::DEQUEUED ? NO_ERROR : BAD_VALUE;
}

void BufferQueueProducer::fillOutputLocked(QueueBufferOutput* output) const {
    output->width = mCore->defaultWidth;
    output->height = mCore->defaultHeight;
    output->transformHint = 0;
    output->numPendingBuffers = static_cast<uint32_t>(mCore->queue.size());
    output->nextFrameNumber = mCore->frameCounter + 1;
    output->bufferReplaced = false;
}

status_t BufferQueueProducer::requestBuffer(int slot, sp<GraphicBuffer>* buf) {
    std::lock_guard<std::mutex> lock(mCore->mutex);
    if (const status_t status = checkUsableLocked(); status != NO_ERROR) return status;
    if (const status_t status = checkDequeuedLocked(slot); status != NO_ERROR) return status;
    mCore->slots[slot].requested = true;
    *buf = mCore->slots[slot].buffer;
    return NO_ERROR;
}

status_t BufferQueueProducer::setMaxDequeuedBufferCount(int maxDequeuedBuffers) {
    sp<IConsumerListener> listener;
    {
        std::lock_guard<std::mutex> lock(mCore->mutex);
        if (mCore->isAbandoned) return NO_INIT;
        if (maxDequeuedBuffers == mCore->maxDequeued) return NO_ERROR;
        if (maxDequeuedBuffers < std::max(1, mCore->countLocked(BufferSlot::State::DEQUEUED)))
            return BAD_VALUE;
        if (maxDequeuedBuffers > mCore->maxBufferCount - mCore->minUndequeuedCountLocked()) return BAD_VALUE;
        const int delta = maxDequeuedBuffers - mCore->maxDequeued;
        if (!mCore->adjustAvailableSlotsLocked(delta)) return BAD_VALUE;
        mCore->maxDequeued = maxDequeuedBuffers;
        mCore->dequeueCondition.notify_all();
        if (delta < 0) listener = mCore->consumerListener;
    }
    if (listener != nullptr) listener->onBuffersReleased();
    return NO_ERROR;
}

status_t BufferQueueProducer::setAsyncMode(bool async) {
    sp<IConsumerListener> listener;
    {
        std::lock_guard<std::mutex> lock(mCore->mutex);
        if (mCore->isAbandoned) return NO_INIT;
        if (async == mCore->asyncMode) return NO_ERROR;
        const int extra = async || mCore->dequeueCannotBlock ? 1 : 0;
        if (mCore->maxAcquired + mCore->maxDequeued + extra > mCore->maxBufferCount) return BAD_VALUE;
        const int delta =
            mCore->maxBufferCountLocked(async, mCore->dequeueCannotBlock, mCore->maxBufferCount) -
            mCore->maxBufferCountLocked();
        if (!mCore->adjustAvailableSlotsLocked(delta)) return BAD_VALUE;
        mCore->asyncMode = async;
        mCore->dequeueCondition.notify_all();
        if (delta < 0) listener = mCore->consumerListener;
    }
    if (listener != nullptr) listener->onBuffersReleased();
    return NO_ERROR;
}

status_t BufferQueueProducer::setDequeueTimeout(nsecs_t timeout) {
    std::lock_guard<std::mutex> lock(mCore->mutex);
    const bool cannotBlock = timeout < 0 && mCore->dequeueCannotBlock;
    const int delta = mCore->maxBufferCountLocked(mCore->asyncMode, cannotBlock, mCore->maxBufferCount) -
                      mCore->maxBufferCountLocked();
    if (!mCore->adjustAvailableSlotsLocked(delta)) return BAD_VALUE;
    mCore->dequeueTimeout = timeout;
    mCore->dequeueCannotBlock = cannotBlock;
    if (timeout > 0) mCore->queueCanDrop = false;
    return NO_ERROR;
}

status_t BufferQueueProducer::waitForFreeSlotLocked(std::unique_lock<std::mutex>& lock, int* outSlot) {
    for (;;) {
        if (mCore->isAbandoned) return NO_INIT;
        // Before its first frame a producer may take every slot there is.
        if (mCore->hasQueued && mCore->countLocked(BufferSlot::State::DEQUEUED) >= mCore->maxDequeued)
            return INVALID_OPERATION;

        // Frames of earlier connections hold memory without holding slots.
        const bool crowded = static_cast<int>(mCore->queue.size()) > mCore->maxBufferCountLocked();
        if (!crowded && !mCore->freeBuffers.empty()) {
            *outSlot = mCore->freeBuffers.front();
            mCore->freeBuffers.pop_front();
            return NO_ERROR;
        }
        if (!crowded && !mCore->freeSlots.empty()) {
            *outSlot = *mCore->freeSlots.begin();
            mCore->freeSlots.erase(mCore->freeSlots.begin());
            return NO_ERROR;
        }

        // A consumer that holds one more than its maximum is about to give one back: that is waited for.
        const bool mayFail = mCore->dequeueCannotBlock || mCore->asyncMode;
        if (mayFail && mCore->countLocked(BufferSlot::State::ACQUIRED) <= mCore->maxAcquired)
            return WOULD_BLOCK;
        if (mCore->dequeueTimeout < 0) {
            mCore->dequeueCondition.wait(lock);
        } else if (mCore->dequeueCondition.wait_for(lock, std::chrono::nanoseconds(mCore->dequeueTimeout)) ==
                   std::cv_status::timeout) {
            return TIMED_OUT;
        }
    }
}

status_t BufferQueueProducer::dequeueBuffer(int* outSlot, sp<Fence>* outFence, uint32_t w, uint32_t h,
                                            PixelFormat format, uint64_t usage, uint64_t* outBufferAge,
                                            FrameEventHistoryDelta* /*outTimestamps*/) {
    std::unique_lock<std::mutex> lock(mCore->mutex);
    if (const status_t status = checkUsableLocked(); status != NO_ERROR) return status;
    if ((w == 0) != (h == 0)) return BAD_VALUE;
    if (w == 0) std::tie(w, h) = std::make_pair(mCore->defaultWidth, mCore->defaultHeight);
    if (format == 0) format = mCore->defaultFormat;
    usage |= mCore->consumerUsage;

    int found = BufferItem::INVALID_BUFFER_SLOT;
    if (const status_t status = waitForFreeSlotLocked(lock, &found); status != NO_ERROR) return status;
    BufferSlot& slot = mCore->slots[found];
    status_t flags = NO_ERROR;
    if (slot.buffer == nullptr || slot.buffer->needsReallocation(w, h, format, kLayerCount, usage)) {
        const sp<GraphicBuffer> allocated(
            new GraphicBuffer(w, h, format, kLayerCount, usage, mCore->consumerName.string()));
        mCore->clearSlotLocked(found);
        if (allocated->initCheck() != NO_ERROR) {
            mCore->freeSlots.insert(found);
            return allocated->initCheck();
        }
        slot.buffer = allocated;
        flags = BUFFER_NEEDS_REALLOCATION;
    }
    slot.state = BufferSlot::State::DEQUEUED;
    *outSlot = found;
    *outFence = std::exchange(slot.fence, Fence::NO_FENCE);
    if (outBufferAge != nullptr)
        *outBufferAge = slot.frameNumber ? mCore->frameCounter + 1 - slot.frameNumber : 0;
    return flags;
}

status_t BufferQueueProducer::checkQueueableLocked(int slot, const QueueBufferInput& input) const {
    if (const status_t status = checkUsableLocked(); status != NO_ERROR) return status;
    if (const status_t status = checkDequeuedLocked(slot); status != NO_ERROR) return status;
    if (!mCore->slots[slot].requested) return BAD_VALUE;
    return cropFits(input.crop, *mCore->slots[slot].buffer) ? NO_ERROR : BAD_VALUE;
}

BufferItem BufferQueueProducer::queueSlotLocked(int slot, const QueueBufferInput& input) {
    BufferSlot& queued = mCore->slots[slot];
    queued.state = BufferSlot::State::QUEUED;
    queued.fence = input.fence;
    queued.frameNumber = ++mCore->frameCounter;

    BufferItem item;
    item.mGraphicBuffer = queued.buffer;
    item.mFence = input.fence;
    item.mCrop = input.crop;
    item.mTransform = input.transform;
    item.mScalingMode = static_cast<uint32_t>(input.scalingMode);
    item.mTimestamp = input.timestamp;
    item.mIsAutoTimestamp = input.isAutoTimestamp;
    item.mDataSpace = input.dataSpace == HAL_DATASPACE_UNKNOWN ? mCore->defaultDataSpace : input.dataSpace;
    item.mFrameNumber = queued.frameNumber;
    item.mSlot = slot;
    item.mIsDroppable = mCore->asyncMode || mCore->queueCanDrop;
    return item;
}

status_t BufferQueueProducer::queueBuffer(int slot, const QueueBufferInput& input,
                                          QueueBufferOutput* output) {
    if (input.fence == nullptr || !isKnownScalingMode(input.scalingMode)) return BAD_VALUE;
    FrameNotice notice;
    {
        std::lock_guard<std::mutex> lock(mCore->mutex);
        if (const status_t status = checkQueueableLocked(slot, input); status != NO_ERROR) return status;
        notice.item = queueSlotLocked(slot, input);
        notice.replaced = !mCore->queue.empty() && mCore->queue.back().mIsDroppable;
        bool slotFreed = false;
        if (notice.replaced) {
            const BufferItem& dropped = mCore->queue.back();
            slotFreed = !dropped.mIsStale;
            if (slotFreed) mCore->releaseSlotLocked(dropped.mSlot, dropped.mFence);
            mCore->queue.pop_back();
        }
        mCore->queue.push_back(notice.item);
        notice.item.mGraphicBuffer.clear();
        mCore->hasQueued = true;
        mCore->dequeueCondition.notify_all();
        fillOutputLocked(output);
        output->bufferReplaced = slotFreed;
        notice.listener = mCore->consumerListener;
        notice.ticket = mNextTicket++;
    }
    deliver(notice);
    return NO_ERROR;
}

// Frames may be queued by several threads, but their notices keep the order of the frames.
void BufferQueueProducer::deliver(const FrameNotice& notice) {
    std::unique_lock<std::mutex> lock(mNoticeMutex);
    mNoticeCondition.wait(lock, [&] { return notice.ticket == mCurrentTicket; });
    if (notice.listener != nullptr) {
        if (notice.replaced) {
            notice.listener->onFrameReplaced(notice.item);
        } else {
            notice.listener->onFrameAvailable(notice.item);
        }
    }
    mCurrentTicket++;
    mNoticeCondition.notify_all();
}

status_t BufferQueueProducer::cancelBuffer(int slot, const sp<Fence>& fence) {
    std::lock_guard<std::mutex> lock(mCore->mutex);
    if (const status_t status = checkUsableLocked(); status != NO_ERROR) return status;
    if (const status_t status = checkDequeuedLocked(slot); status != NO_ERROR) return status;
    if (fence == nullptr) return BAD_VALUE;
    mCore->releaseSlotLocked(slot, fence);
    return NO_ERROR;
}

int BufferQueueProducer::query(int what, int* value) {
    if (value == nullptr) return BAD_VALUE;
    std::lock_guard<std::mutex> lock(mCore->mutex);
    if (mCore->isAbandoned) return NO_INIT;
    switch (what) {
        case NATIVE_WINDOW_WIDTH:
            *value = static_cast<int>(mCore->defaultWidth);
            return NO_ERROR;
        case NATIVE_WINDOW_HEIGHT:
            *value = static_cast<int>(mCore->defaultHeight);
            return NO_ERROR;
        case NATIVE_WINDOW_FORMAT:
            *value = mCore->defaultFormat;
            return NO_ERROR;
        case NATIVE_WINDOW_MIN_UNDEQUEUED_BUFFERS:
            *value = mCore->minUndequeuedCountLocked();
            return NO_ERROR;
        case NATIVE_WINDOW_CONSUMER_RUNNING_BEHIND:
            *value = mCore->queue.size() > 1;
            return NO_ERROR;
        case NATIVE_WINDOW_CONSUMER_USAGE_BITS:
            *value = static_cast<int>(mCore->consumerUsage);
            return NO_ERROR;
        case NATIVE_WINDOW_DEFAULT_DATASPACE:
            *value = static_cast<int>(mCore->defaultDataSpace);
            return NO_ERROR;
        default:
            return BAD_VALUE;
    }
}

status_t BufferQueueProducer::connect(const sp<IProducerListener>& listener, int api,
                                      bool producerControlledByApp, QueueBufferOutput* output) {
    std::lock_guard<std::mutex> lock(mCore->mutex);
    if (mCore->isAbandoned || mCore->consumerListener == nullptr) return NO_INIT;
    if (output == nullptr || mCore->connectedApi != BufferQueueCore::kNoApi || !isKnownApi(api))
        return BAD_VALUE;

    const bool bothByApp = mCore->consumerControlledByApp && producerControlledByApp;
    const bool cannotBlock = bothByApp && mCore->dequeueTimeout < 0;
    const int delta = mCore->maxBufferCountLocked(mCore->asyncMode, cannotBlock, mCore->maxBufferCount) -
                      mCore->maxBufferCountLocked();
    if (!mCore->adjustAvailableSlotsLocked(delta)) return BAD_VALUE;

    mCore->connectedApi = api;
    mCore->connectedProcess = vel::host::callingProcess();
    mCore->dequeueCannotBlock = cannotBlock;
    mCore->queueCanDrop = bothByApp && mCore->dequeueTimeout <= 0;
    mCore->hasQueued = false;
    if (listener != nullptr && listener->needsReleaseNotify()) mCore->producerListener = listener;
    fillOutputLocked(output);
    output->maxBufferCount = mCore->maxBufferCount;
    return NO_ERROR;
}

status_t BufferQueueProducer::disconnect(int api, DisconnectMode mode) {
    sp<IConsumerListener> listener;
    {
        std::lock_guard<std::mutex> lock(mCore->mutex);
        if (mode == DisconnectMode::AllLocal) {
            if (mCore->connectedProcess != vel::host::callingProcess()) return NO_ERROR;
            api = kConnectedApi;
        }
        if (mCore->isAbandoned) return NO_ERROR;
        if (api == kConnectedApi) {
            if (mCore->connectedApi == BufferQueueCore::kNoApi) return NO_ERROR;
            api = mCore->connectedApi;
        }
        if (!isKnownApi(api)) return BAD_VALUE;
        if (mCore->connectedApi == BufferQueueCore::kNoApi) return NO_INIT;
        if (mCore->connectedApi != api) return BAD_VALUE;
        mCore->freeAllBuffersLocked();
        mCore->connectedApi = BufferQueueCore::kNoApi;
        mCore->producerListener = nullptr;
        mCore->dequeueCondition.notify_all();
        listener = mCore->consumerListener;
    }
    if (listener != nullptr) {
        listener->onBuffersReleased();
        listener->onDisconnect();
    }
    return NO_ERROR;
}

String8 BufferQueueProducer::getConsumerName() const {
    std::lock_guard<std::mutex> lock(mCore->mutex);
    return mCore->consumerName;
}

status_t BufferQueueProducer::getUniqueId(uint64_t* outId) const {
    *outId = mCore->uniqueId;
    return NO_ERROR;
}

status_t BufferQueueProducer::getConsumerUsage(uint64_t* outUsage) const {
    std::lock_guard<std::mutex> lock(mCore->mutex);
    *outUsage = mCore->consumerUsage;
    return NO_ERROR;
}

}  // namespace android
