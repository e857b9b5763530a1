#pragma once

#include <cstdint>
#include <optional>

#include "FrameView.h"

namespace vel::sim {

/**
 * What a frame says about itself, for programs: how many frames its stream had before it, and which stream.
 */
struct FrameCounter {
    uint32_t counter = 0;
    uint32_t stream = 0;  // 0 to 3

    bool operator==(const FrameCounter& other) const {
        return counter == other.counter && stream == other.stream;
    }
};

/**
 * The height in pixels of the strip at the top of a frame that carries the counter; 0 when the frame is too
 * small for one (narrower than 48 pixels or lower than 8).
 */
int counterStripHeight(FrameSize size);

/**
 * Draws the counter over the top of the frame: a row of 48 black and white cells, in their brightness only,
 * with a checksum. It stands any change of colour, and a blur of about half a cell. False, with nothing
 * drawn, when the frame is too small. Throws std::invalid_argument for a stream above 3.
 */
bool stampFrameCounter(const FrameView& frame, const FrameCounter& counter);

/** The counter that the frame carries; empty when it has none, or none that can be read with certainty. */
std::optional<FrameCounter> readFrameCounter(const ConstFrameView& frame);

}  // namespace vel::sim
