#include <android/log.h>
#include <gui/BufferItemConsumer.h>
#include <stdlib.h>

namespace android {

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
    if (!item) return BAD_VALUE;
    std::lock_guard<std::mutex> lock(mMutex);
    const status_t status = acquireBufferLocked(item, presentWhen);
    if (status != NO_ERROR || !waitForFence) return status;
    return item->mFence->waitForever("BufferItemConsumer::acquireBuffer");
}

status_t BufferItemConsumer::releaseBuffer(const BufferItem& item, const sp<Fence>& releaseFence) {
    std::lock_guard<std::mutex> lock(mMutex);
    return releaseBufferLocked(item, releaseFence);
}

}  // namespace android
