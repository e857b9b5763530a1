#pragma once

#include <cstdint>
#include <vector>

#include "FrameView.h"

namespace vel::sim {

/** A picture as JPEG. quality: 1 to 100. Empty when there is no memory for it. */
std::vector<uint8_t> encodeJpeg(const ConstFrameView& picture, int quality);

}  // namespace vel::sim
