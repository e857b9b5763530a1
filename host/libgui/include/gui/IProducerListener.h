#pragma once

#include <stdint.h>
#include <utils/RefBase.h>

#include <vector>

namespace android {

/** What a producer may be told; called on the consumer's thread without the queue's lock. */
class IProducerListener : public virtual RefBase {
  public:
    /** A buffer came back and can be dequeued; only when needsReleaseNotify() said so at connect. */
    virtual void onBufferReleased() = 0;
    virtual bool needsReleaseNotify() = 0;
    virtual void onBuffersDiscarded(const std::vector<int32_t>& slots) { (void)slots; }
};

}  // namespace android
