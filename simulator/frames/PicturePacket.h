#pragma once

#include <cstdint>

namespace vel::sim {

/**
 * The start of a packet of the pictures that the camera server sends; a JPEG follows it to the packet's end:
 * the captured picture, and at its right its replacement.
 */
struct PicturePacket {
    uint32_t stream = 0;
    uint32_t frame = 0;
};

constexpr uint32_t kMaxPictureStreams = 4;
constexpr int kMaxPictureWidth = 640;  // of each half
constexpr int kMaxPictureHeight = 640;

}  // namespace vel::sim
