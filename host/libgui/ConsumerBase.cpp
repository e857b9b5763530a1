#include <gui/ConsumerBase.h>

namespace android {

ConsumerBase::ConsumerBase(const sp<IGraphicBufferConsumer>& consumer, bool controlledByApp)
    : mConsumer(consumer) {
    // Weak, since the queue would else keep its consumer alive, and a strong pointer made in a constructor
    // would end the object with itself.
    const wp<ConsumerListener> listener = static_cast<ConsumerListener*>(this);
    mConsumer->consumerConnect(new BufferQueue::ProxyConsumerListener(listener), controlledByApp);
}

void ConsumerBase::onLastStrongRef(const void*) {
    abandon();
}

void ConsumerBase::abandon() {
    std::lock_guard<std::mutex> lock(mMutex);
    if (mAbandoned) return;
    mAbandoned = true;
    mConsumer->consumerDisconnect();
}

bool ConsumerBase::isAbandoned() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mAbandoned;
}

void ConsumerBase::setName(const String8& name) {
    std::lock_guard<std::mutex> lock(mMutex);
    if (!mAbandoned) mConsumer->setConsumerName(name);
}

void ConsumerBase::setFrameAvailableListener(const wp<FrameAvailableListener>& listener) {
    std::lock_guard<std::recursive_mutex> lock(mFrameAvailableMutex);
    mFrameAvailableListener = listener;
}

status_t ConsumerBase::setDefaultBufferSize(uint32_t width, uint32_t height) {
    std::lock_guard<std::mutex> lock(mMutex);
    return mAbandoned ? NO_INIT : mConsumer->setDefaultBufferSize(width, height);
}

status_t ConsumerBase::setDefaultBufferFormat(PixelFormat defaultFormat) {
    std::lock_guard<std::mutex> lock(mMutex);
    return mAbandoned ? NO_INIT : mConsumer->setDefaultBufferFormat(defaultFormat);
}

status_t ConsumerBase::setDefaultBufferDataSpace(android_dataspace defaultDataSpace) {
    std::lock_guard<std::mutex> lock(mMutex);
    return mAbandoned ? NO_INIT : mConsumer->setDefaultBufferDataSpace(defaultDataSpace);
}

status_t ConsumerBase::setConsumerUsageBits(uint64_t usage) {
    std::lock_guard<std::mutex> lock(mMutex);
    return mAbandoned ? NO_INIT : mConsumer->setConsumerUsageBits(usage);
}

status_t ConsumerBase::setMaxAcquiredBufferCount(int maxAcquiredBuffers) {
    std::lock_guard<std::mutex> lock(mMutex);
    return mAbandoned ? NO_INIT : mConsumer->setMaxAcquiredBufferCount(maxAcquiredBuffers);
}

// The lock stays held over the call, so that a listener which was replaced is never called afterwards.
void ConsumerBase::onFrameAvailable(const BufferItem& item) {
    std::lock_guard<std::recursive_mutex> lock(mFrameAvailableMutex);
    if (const sp<FrameAvailableListener> listener = mFrameAvailableListener.promote(); listener != nullptr)
        listener->onFrameAvailable(item);
}

void ConsumerBase::onFrameReplaced(const BufferItem& item) {
    std::lock_guard<std::recursive_mutex> lock(mFrameAvailableMutex);
    if (const sp<FrameAvailableListener> listener = mFrameAvailableListener.promote(); listener != nullptr)
        listener->onFrameReplaced(item);
}

void ConsumerBase::onDisconnect() {}

void ConsumerBase::onBuffersReleased() {}

status_t ConsumerBase::acquireBufferLocked(BufferItem* item, nsecs_t presentWhen) {
    return mAbandoned ? NO_INIT : mConsumer->acquireBuffer(item, presentWhen);
}

status_t ConsumerBase::releaseBufferLocked(const BufferItem& item, const sp<Fence>& releaseFence) {
    return mAbandoned ? NO_INIT : mConsumer->releaseBuffer(item.mSlot, item.mFrameNumber, releaseFence);
}

}  // namespace android
