#pragma once

#include <utils/RefBase.h>

namespace android {

class BufferItem;

/**
 * What a queue tells its consumer; called on the producer's thread, in queue order, without the queue's lock.
 */
class ConsumerListener : public virtual RefBase {
  public:
    virtual void onDisconnect() {}
    /** The item has no buffer: that comes with acquiring. */
    virtual void onFrameAvailable(const BufferItem& item) = 0;
    virtual void onFrameReplaced(const BufferItem& item) { (void)item; }
    /** Slots were reset: remembered buffers are void. */
    virtual void onBuffersReleased() = 0;
};

class IConsumerListener : public ConsumerListener {};

}  // namespace android
