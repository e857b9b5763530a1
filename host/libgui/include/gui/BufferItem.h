#pragma once

#include <stdint.h>
#include <system/graphics.h>
#include <ui/Fence.h>
#include <ui/GraphicBuffer.h>
#include <ui/Rect.h>
#include <utils/StrongPointer.h>
#include <utils/Timers.h>

namespace android {

/** One queued frame, as its consumer sees it. */
class BufferItem {
  public:
    enum { INVALID_BUFFER_SLOT = -1 };

    sp<GraphicBuffer> mGraphicBuffer;
    sp<Fence> mFence = Fence::NO_FENCE;  // signals when the frame has been written
    Rect mCrop = Rect::INVALID_RECT;
    uint32_t mTransform = 0;
    uint32_t mScalingMode = 0;  // NATIVE_WINDOW_SCALING_MODE_*
    int64_t mTimestamp = 0;     // ns
    bool mIsAutoTimestamp = false;
    android_dataspace mDataSpace = HAL_DATASPACE_UNKNOWN;
    uint64_t mFrameNumber = 0;  // counts queued frames from 1
    int mSlot = INVALID_BUFFER_SLOT;
    bool mIsDroppable = false;  // the next frame takes its place
    bool mIsStale = false;      // the slot was reset after the frame was queued
};

}  // namespace android
