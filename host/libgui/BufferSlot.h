#pragma once

#include <stdint.h>
#include <ui/Fence.h>
#include <ui/GraphicBuffer.h>

namespace android {

/** One of the queue's 64 places. */
struct BufferSlot {
    enum class State { FREE, DEQUEUED, QUEUED, ACQUIRED };

    State state = State::FREE;
    sp<GraphicBuffer> buffer;           // null until allocated and after a reset
    sp<Fence> fence = Fence::NO_FENCE;  // what the slot's next user has to wait for
    uint64_t frameNumber = 0;           // of the frame last queued with this buffer, 0 for none
    bool requested = false;             // the producer has fetched the buffer
};

}  // namespace android
