#pragma once

#include <cstdint>
#include <deque>

#include "FrameHeader.h"

namespace vel::sim {

/** Tells the frames of a stream as events. Of the stream's thread; does nothing when nobody wants events. */
class StreamEvents {
  public:
    explicit StreamEvents(uint32_t stream) : mStream(stream) {}

    /** A frame was captured, which began then, and is on its way. */
    void sent(const FrameHeader& frame, int64_t startNs);
    /** The replacement of a frame is here. */
    void replaced(const FrameHeader& frame);
    /** Replacements were waited for from then on. */
    void waited(uint32_t frame, int64_t startNs, const char* outcome);
    /** From this frame on there are no replacements, or there are again. */
    void changed(uint32_t frame, bool isReplacing);

  private:
    void tellInFlight() const;

    const uint32_t mStream;
    std::deque<uint32_t> mInFlight;  // frames whose replacements have not come, by number
    int64_t mWithoutSinceNs = 0;
};

}  // namespace vel::sim
