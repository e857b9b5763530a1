#include "BufferQueueCore.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>

namespace android {

namespace {

uint64_t nextUniqueId() {
    static std::atomic<uint32_t> count{0};
    return static_cast<uint64_t>(getpid()) << 32 | count.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

BufferQueueCore::BufferQueueCore() : uniqueId(nextUniqueId()) {
    const int usable = maxBufferCountLocked();
    for (int slot = 0; slot < usable; slot++)
        freeSlots.insert(slot);
    for (int slot = kSlotCount - 1; slot >= usable; slot--)
        unusedSlots.push_back(slot);
}

int BufferQueueCore::maxBufferCountLocked(bool async, bool cannotBlock, int limit) const {
    return std::min(limit, maxAcquired + maxDequeued + (async || cannotBlock ? 1 : 0));
}

int BufferQueueCore::minUndequeuedCountLocked() const {
    return maxAcquired + (asyncMode || dequeueCannotBlock ? 1 : 0);
}

int BufferQueueCore::countLocked(BufferSlot::State state) const {
    return static_cast<int>(std::count_if(slots.begin(), slots.end(),
                                          [=](const BufferSlot& slot) { return slot.state == state; }));
}

bool BufferQueueCore::adjustAvailableSlotsLocked(int delta) {
    if (delta > static_cast<int>(unusedSlots.size())) return false;
    if (-delta > static_cast<int>(freeSlots.size() + freeBuffers.size())) return false;
    for (; delta > 0; delta--) {
        freeSlots.insert(unusedSlots.back());
        unusedSlots.pop_back();
    }
    for (; delta < 0; delta++) {
        int dropped;
        if (!freeSlots.empty()) {
            dropped = *freeSlots.begin();
            freeSlots.erase(freeSlots.begin());
        } else {
            dropped = freeBuffers.back();
            freeBuffers.pop_back();
        }
        clearSlotLocked(dropped);
        unusedSlots.push_back(dropped);
    }
    return true;
}

void BufferQueueCore::clearSlotLocked(int slot) {
    slots[slot] = BufferSlot();
}

void BufferQueueCore::freeAllBuffersLocked() {
    freeSlots.insert(freeBuffers.begin(), freeBuffers.end());
    freeBuffers.clear();
    for (int slot = 0; slot < kSlotCount; slot++) {
        if (slots[slot].state != BufferSlot::State::FREE) freeSlots.insert(slot);
        clearSlotLocked(slot);
    }
    for (BufferItem& item : queue)
        item.mIsStale = true;
}

void BufferQueueCore::releaseSlotLocked(int slot, const sp<Fence>& fence) {
    slots[slot].state = BufferSlot::State::FREE;
    slots[slot].fence = fence;
    freeBuffers.push_back(slot);
    dequeueCondition.notify_all();
}

}  // namespace android
