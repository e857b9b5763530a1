#pragma once

#include <gui/BufferItem.h>
#include <gui/IConsumerListener.h>
#include <gui/IProducerListener.h>
#include <system/window.h>
#include <ui/BufferQueueDefs.h>
#include <utils/RefBase.h>
#include <utils/String8.h>
#include <utils/Timers.h>

#include <array>
#include <condition_variable>
#include <deque>
#include <list>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "BufferSlot.h"

namespace android {

/**
 * The state that both ends of a queue work on. Every member is guarded by mutex; methods expect it held.
 *
 * A slot is in use (its state is not Free), or in exactly one of three lists: freeBuffers (it has a buffer,
 * oldest release first), freeSlots (it has none), unusedSlots (beyond the present limits).
 */
struct BufferQueueCore : public RefBase {
    static constexpr int kSlotCount = BufferQueueDefs::NUM_BUFFER_SLOTS;
    static constexpr int kMaxMaxAcquired = kSlotCount - 2;
    static constexpr int kNoApi = 0;

    BufferQueueCore();

    /** How many slots the limits allow, for the given modes or the present ones. */
    int maxBufferCountLocked(bool async, bool cannotBlock, int limit) const;
    int maxBufferCountLocked() const {
        return maxBufferCountLocked(asyncMode, dequeueCannotBlock, maxBufferCount);
    }
    /** How many of them a producer can never have. */
    int minUndequeuedCountLocked() const;
    int countLocked(BufferSlot::State state) const;

    /**
     * Adds or drops delta usable slots; false, with nothing changed, when there are too few to add or drop.
     */
    bool adjustAvailableSlotsLocked(int delta);
    /**
     * Takes the buffer from the slot; to the slot's user it becomes stale. The lists are the caller's duty.
     */
    void clearSlotLocked(int slot);
    /** Empties every slot in whatever state; queued frames stay, marked stale. */
    void freeAllBuffersLocked();
    /** Ends a slot's use: it goes to the end of the free buffers, to be written after the fence. */
    void releaseSlotLocked(int slot, const sp<Fence>& fence);

    const uint64_t uniqueId;

    mutable std::mutex mutex;
    // A slot, the maximum of dequeued buffers, the mode or the queue's life has changed. As on a device
    // neither a raised maximum of acquired buffers nor a timeout ends a wait.
    std::condition_variable dequeueCondition;

    std::array<BufferSlot, kSlotCount> slots;
    std::set<int> freeSlots;
    std::list<int> freeBuffers;
    std::vector<int> unusedSlots;  // the last one is used next
    std::deque<BufferItem> queue;

    bool isAbandoned = false;
    sp<IConsumerListener> consumerListener;  // null: no consumer
    bool consumerControlledByApp = false;
    String8 consumerName{"unnamed"};
    uint64_t consumerUsage = 0;
    uint32_t defaultWidth = 1;
    uint32_t defaultHeight = 1;
    PixelFormat defaultFormat = PIXEL_FORMAT_RGBA_8888;
    android_dataspace defaultDataSpace = HAL_DATASPACE_UNKNOWN;

    int connectedApi = kNoApi;
    std::string connectedProcess;            // as vel::host::callingProcess() names it
    sp<IProducerListener> producerListener;  // set only when it wants to hear of releases
    bool hasQueued = false;                  // since the last connect
    bool asyncMode = false;
    bool dequeueCannotBlock = false;
    bool queueCanDrop = false;
    nsecs_t dequeueTimeout = -1;  // below 0: without limit

    int maxBufferCount = kSlotCount;
    int maxDequeued = 1;
    int maxAcquired = 1;
    uint64_t frameCounter = 0;
};

}  // namespace android
