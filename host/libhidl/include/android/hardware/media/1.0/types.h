#pragma once

#include <android/hardware/graphics/common/1.0/types.h>
#include <hidl/HidlSupport.h>

#include <cstdint>

namespace android::hardware::media::V1_0 {

/// A fence: a handle with one descriptor, or an empty handle for none.
typedef ::android::hardware::hidl_handle Fence;

struct AnwBufferAttributes final {
    uint32_t width;
    uint32_t height;
    uint32_t stride;
    ::android::hardware::graphics::common::V1_0::PixelFormat format;
    uint32_t usage;
    uint32_t generationNumber;
    uint64_t layerCount;
    uint64_t id;
};

struct AnwBuffer final {
    ::android::hardware::hidl_handle nativeHandle;
    AnwBufferAttributes attr;
};

struct Rect final {
    int32_t left;
    int32_t top;
    int32_t right;
    int32_t bottom;
};

typedef ::android::hardware::hidl_vec<Rect> Region;

}  // namespace android::hardware::media::V1_0
