#pragma once

#include <cstdint>

namespace android::hardware::graphics::common::V1_0 {

/** Pixel formats by their number; others may be carried by a cast. */
enum class PixelFormat : int32_t {
    RGBA_8888 = 1,
    RGBX_8888 = 2,
    RGB_888 = 3,
    RGB_565 = 4,
    BGRA_8888 = 5,
    RGBA_FP16 = 22,
    RAW16 = 32,
    BLOB = 33,
    IMPLEMENTATION_DEFINED = 34,
    YCBCR_420_888 = 35,
    RAW_OPAQUE = 36,
    RAW10 = 37,
    RAW12 = 38,
    RGBA_1010102 = 43,
    YV12 = 842094169,
};

/** Data spaces by their number; others may be carried by a cast. */
enum class Dataspace : int32_t {
    UNKNOWN = 0,
    ARBITRARY = 1,
};

}  // namespace android::hardware::graphics::common::V1_0
