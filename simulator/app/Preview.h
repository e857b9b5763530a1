#pragma once

#include <atomic>
#include <cstdint>

#include "ConsumerQueue.h"
#include "FrameConfiguration.h"
#include "FrameView.h"

namespace vel::sim {

/**
 * Takes the frames of the application frame path as they come, on the thread that delivers them, and looks at
 * their counters.
 */
class Preview : public android::ConsumerBase::FrameAvailableListener {
  public:
    explicit Preview(const FrameConfiguration& configuration) : mConfiguration(configuration) {}

    /** Whose listener this object is to become. */
    const ConsumerQueue& queue() const { return mQueue; }

    void onFrameAvailable(const android::BufferItem&) override;

    /** Taken so far. Any thread. */
    uint64_t frames() const { return mFrames; }
    /** Frames whose counter was not above the one before. Any thread. */
    uint64_t outOfOrder() const { return mOutOfOrder; }

  private:
    void look(const ConstFrameView& frame);

    const FrameConfiguration mConfiguration;
    const ConsumerQueue mQueue;
    uint32_t mLast = 0;  // of the delivering thread; one frame is delivered at a time
    std::atomic<uint64_t> mFrames{0};
    std::atomic<uint64_t> mOutOfOrder{0};
};

}  // namespace vel::sim
