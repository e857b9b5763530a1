#pragma once

#include <gui/IConsumerListener.h>
#include <gui/IGraphicBufferConsumer.h>
#include <gui/IGraphicBufferProducer.h>
#include <ui/BufferQueueDefs.h>

namespace android {

class BufferQueue {
  public:
    enum { INVALID_BUFFER_SLOT = -1 };
    enum { NUM_BUFFER_SLOTS = BufferQueueDefs::NUM_BUFFER_SLOTS };
    enum { NO_BUFFER_AVAILABLE = IGraphicBufferConsumer::NO_BUFFER_AVAILABLE };
    enum { PRESENT_LATER = IGraphicBufferConsumer::PRESENT_LATER };

    /**
     * Forwards to a listener that is held weakly, so that a consumer which owns its queue can be its
     * listener.
     */
    class ProxyConsumerListener : public IConsumerListener {
      public:
        explicit ProxyConsumerListener(const wp<ConsumerListener>& consumerListener);
        void onDisconnect() override;
        void onFrameAvailable(const BufferItem& item) override;
        void onFrameReplaced(const BufferItem& item) override;
        void onBuffersReleased() override;

      private:
        const wp<ConsumerListener> mConsumerListener;
    };

    /**
     * Makes a queue and hands out its two ends, which keep it alive. Producers get NO_INIT until the consumer
     * has connected. Whether the consumer is the display makes no difference here.
     */
    static void createBufferQueue(sp<IGraphicBufferProducer>* outProducer,
                                  sp<IGraphicBufferConsumer>* outConsumer,
                                  bool consumerIsSurfaceFlinger = false);
};

}  // namespace android
