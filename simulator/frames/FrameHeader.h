#pragma once

#include <cstddef>
#include <cstdint>

#include "FrameView.h"

namespace vel::sim {

// What the frames of the application frame path measure: a small preview beside the substituted streams.
constexpr FrameSize kPreviewSize{640, 360};

/**
 * A frame as it travels through the buffer queues: one row of bytes, the picture, then a header block of 96
 * bytes at its end, the whole rounded up to 16 bytes.
 */
size_t frameRowBytes(FrameSize size);

/**
 * What the block says. The place of the stream index is the library's; the rest is between the simulator's
 * camera server and its application.
 */
struct FrameHeader {
    uint32_t counter = 0;     // of frames captured before, per stream
    uint32_t stream = 0;      // 0 to 3
    int64_t captureNs = 0;    // steady clock at the start of the capture
    uint64_t memory = 0;      // the memory that the picture was written to, see memoryIdentity()
    uint32_t copiesMade = 0;  // between capture and replacement
};

/** The block of a row of frameRowBytes() bytes. */
void writeFrameHeader(uint8_t* row, FrameSize size, const FrameHeader& header);
FrameHeader readFrameHeader(const uint8_t* row, FrameSize size);
/** Names the frame in a trace, in each of the programs that it comes by. */
uint64_t flowIdOf(const FrameHeader& header);
/** Takes the whole block over. */
void copyFrameHeader(const uint8_t* from, uint8_t* to, FrameSize size);

}  // namespace vel::sim
