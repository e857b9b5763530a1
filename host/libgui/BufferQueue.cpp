#include <gui/BufferQueue.h>

#include "BufferQueueConsumer.h"
#include "BufferQueueCore.h"
#include "BufferQueueProducer.h"

namespace android {

BufferQueue::ProxyConsumerListener::ProxyConsumerListener(const wp<ConsumerListener>& consumerListener)
    : mConsumerListener(consumerListener) {}

void BufferQueue::ProxyConsumerListener::onDisconnect() {
    if (const sp<ConsumerListener> listener = mConsumerListener.promote(); listener != nullptr)
        listener->onDisconnect();
}

void BufferQueue::ProxyConsumerListener::onFrameAvailable(const BufferItem& item) {
    if (const sp<ConsumerListener> listener = mConsumerListener.promote(); listener != nullptr)
        listener->onFrameAvailable(item);
}

void BufferQueue::ProxyConsumerListener::onFrameReplaced(const BufferItem& item) {
    if (const sp<ConsumerListener> listener = mConsumerListener.promote(); listener != nullptr)
        listener->onFrameReplaced(item);
}

void BufferQueue::ProxyConsumerListener::onBuffersReleased() {
    if (const sp<ConsumerListener> listener = mConsumerListener.promote(); listener != nullptr)
        listener->onBuffersReleased();
}

void BufferQueue::createBufferQueue(sp<IGraphicBufferProducer>* outProducer,
                                    sp<IGraphicBufferConsumer>* outConsumer,
                                    bool /*consumerIsSurfaceFlinger*/) {
    const sp<BufferQueueCore> core(new BufferQueueCore);
    *outProducer = new BufferQueueProducer(core);
    *outConsumer = new BufferQueueConsumer(core);
}

}  // namespace android
