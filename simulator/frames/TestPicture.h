#pragma once

#include <cstdint>

#include "FrameView.h"

namespace vel::sim {

/**
 * A synthetic camera picture: colour bars above a grey ramp, a box that wanders, the stream and the frame
 * number in figures, and the frame counter that readFrameCounter() understands.
 *
 * Not thread-safe; one object for each stream.
 */
class TestPicture {
  public:
    /** Draws what stays. Throws std::invalid_argument when the size is none or the stream is above 3. */
    TestPicture(FrameSize size, uint32_t stream);

    /**
     * Draws the frame with that number; allocates nothing. The destination must have the picture's size, or
     * std::invalid_argument is thrown. Frames below 48 by 8 pixels get no counter strip.
     */
    void draw(uint32_t counter, const FrameView& destination) const;

  private:
    void drawBackground();
    void drawBox(uint32_t counter, const FrameView& frame) const;

    const uint32_t mStream;
    const int mDot;       // pixels of a text dot
    const int mTextLeft;  // where the figures start, in pixels
    const int mTextTop;
    Frame mBackground;
};

}  // namespace vel::sim
