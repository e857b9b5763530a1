#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "FrameStream.h"

namespace vel::sim {

/** Tells the frames of a session as events. Each does nothing when nobody wants events. */
void tellFramesBegin(FrameSize size, size_t streams, int fps);
/** What became of a stream's frames so far, and its latencies since the last call. */
void tellSecond(uint32_t stream, const FrameCounts& counts, const LatencyStats& latency);
/** How they ended, with the figures of each stream. No stream may run any longer. */
void tellFramesEnd(const std::string& outcome, FrameSize size,
                   const std::vector<std::unique_ptr<FrameStream>>& streams, uint64_t previewFrames);

}  // namespace vel::sim
