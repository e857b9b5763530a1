#include <android/log.h>
#include <gui/BufferItemConsumer.h>
#include <stdlib.h>

namespace android {

namespace {

// What the slot's next user waits for: the frame's own fence and its consumer's. As on a device two fences
// that have both signalled are merged too, and give one that is valid when either was.
sp<Fence> mergedFence(const BufferItem& item, const sp<Fence>& releaseFence) {
    const Fence::Status own = item.mFence->getStatus();
    if (own == releaseFence->getStatus())
        return Fence::merge("BufferItemConsumer", item.mFence, releaseFence);
    return own == Fence::Status::Unsignaled ? item.mFence : releaseFence;
}

}  // namespace

BufferItemConsumer::BufferItemConsumer(const sp<IGraphicBufferConsumer>& consumer, uint64_t consumerUsage,
                                       int bufferCount, bool controlledByApp)
    : ConsumerBase(consumer, controlledByApp) {
    mConsumer->setConsumerUsageBits(consumerUsage);
    if (bufferCount == DEFAULT_MAX_BUFFERS) return;
    const status_t status = mConsumer->setMaxAcquiredBufferCount(bufferCount);
    if (status == NO_ERROR) return;
    __android_log_print(ANDROID_LOG_FATAL, "BufferItemConsumer",
                        "Failed to set max acquired buffer count to %d", bufferCount);
    abort();
}

status_t BufferItemConsumer::acquireBuffer(BufferItem* item, nsecs_t presentWhen, bool waitForFence) {
    if (item == nullptr) return BAD_VALUE;
    std::lock_guard<std::mutex> lock(mMutex);
    const status_t status = acquireBufferLocked(item, presentWhen);
    if (status != NO_ERROR || !waitForFence) return status;
    return item->mFence->waitForever("BufferItemConsumer::acquireBuffer");
}

status_t BufferItemConsumer::releaseBuffer(const BufferItem& item, const sp<Fence>& releaseFence) {
    if (releaseFence == nullptr) return BAD_VALUE;
    std::lock_guard<std::mutex> lock(mMutex);
    return releaseBufferLocked(item, mergedFence(item, releaseFence));
}

}  // namespace android
