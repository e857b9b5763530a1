#pragma once

#include <gui/BufferItem.h>
#include <gui/BufferQueue.h>
#include <ui/PixelFormat.h>
#include <utils/RefBase.h>
#include <utils/String8.h>

#include <mutex>

namespace android {

/**
 * What consumers share: the connection to the queue, forwarding of its notices, and the end of both.
 * The last reference abandons the queue. Calls may come from any thread.
 */
class ConsumerBase : public virtual RefBase, protected ConsumerListener {
  public:
    /**
     * Called on the producer's thread, in queue order, without any lock of the consumer or the queue that
     * acquiring or releasing needs. The item has no buffer: that comes with acquiring.
     */
    struct FrameAvailableListener : public virtual RefBase {
        virtual void onFrameAvailable(const BufferItem& item) = 0;
        virtual void onFrameReplaced(const BufferItem& item) { (void)item; }
    };

    /** Gives up the queue for good: producers get NO_INIT, every later call here too. May be repeated. */
    void abandon();
    bool isAbandoned();

    void setName(const String8& name);

    /** Replaces the listener, null for none; held weakly. After the call the old one is no longer called. */
    void setFrameAvailableListener(const wp<FrameAvailableListener>& listener);

    /** The queue's settings; NO_INIT once abandoned. */
    status_t setDefaultBufferSize(uint32_t width, uint32_t height);
    status_t setDefaultBufferFormat(PixelFormat defaultFormat);
    status_t setDefaultBufferDataSpace(android_dataspace defaultDataSpace);
    status_t setConsumerUsageBits(uint64_t usage);
    status_t setMaxAcquiredBufferCount(int maxAcquiredBuffers);

  protected:
    explicit ConsumerBase(const sp<IGraphicBufferConsumer>& consumer, bool controlledByApp = false);
    void onLastStrongRef(const void* id) override;

    void onDisconnect() override;
    void onFrameAvailable(const BufferItem& item) override;
    void onFrameReplaced(const BufferItem& item) override;
    void onBuffersReleased() override;

    status_t acquireBufferLocked(BufferItem* item, nsecs_t presentWhen);
    status_t releaseBufferLocked(const BufferItem& item, const sp<Fence>& releaseFence);

    std::mutex mMutex;  // guards mAbandoned; held over every call of the queue that a subclass makes
    const sp<IGraphicBufferConsumer> mConsumer;

  private:
    bool mAbandoned = false;
    std::recursive_mutex mFrameAvailableMutex;  // guards the listener, held while it is called
    wp<FrameAvailableListener> mFrameAvailableListener;
};

}  // namespace android
