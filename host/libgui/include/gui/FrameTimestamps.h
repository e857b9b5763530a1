#pragma once

namespace android {

/** History of a window's frames: not kept on a workstation, so there is never news. */
class FrameEventHistoryDelta {
  public:
    FrameEventHistoryDelta() = default;
    FrameEventHistoryDelta(FrameEventHistoryDelta&&) = default;
    FrameEventHistoryDelta& operator=(FrameEventHistoryDelta&&) = default;
    FrameEventHistoryDelta(const FrameEventHistoryDelta&) = delete;
    FrameEventHistoryDelta& operator=(const FrameEventHistoryDelta&) = delete;
};

}  // namespace android
