#include "MetadataChanges.h"

#include <system/camera_metadata.h>

namespace vel::sim {

namespace {

// Never the 0 that the request asks for.
std::vector<int32_t> exposureCompensation(uint32_t frame) {
    return {static_cast<int32_t>(frame % 6) + 1};
}

std::vector<int32_t> orientation(uint32_t frame) {
    return {90 + static_cast<int32_t>(frame % 3) * 90};
}

// A diagonal somewhat above 1.
std::vector<int32_t> colourTransform(uint32_t frame) {
    std::vector<int32_t> values;
    for (int cell = 0; cell < 9; ++cell) {
        const bool isDiagonal = cell % 4 == 0;
        values.insert(values.end(), {isDiagonal ? 129 + static_cast<int32_t>(frame % 32) : 0, 128});
    }
    return values;
}

std::vector<int32_t> maxStreamSize(uint32_t frame) {
    return frame % 2 == 0 ? std::vector<int32_t>{1920, 1080} : std::vector<int32_t>{1280, 720};
}

}  // namespace

const std::vector<MetadataChange>& metadataChanges() {
    // Never destroyed: a message may still be answered while the program exits.
    static const auto& changes = *new std::vector<MetadataChange>{
        {"android.control.aeExposureCompensation", ANDROID_CONTROL_AE_EXPOSURE_COMPENSATION, true, 5, false,
         exposureCompensation},
        {"android.jpeg.orientation", ANDROID_JPEG_ORIENTATION, true, 4, false, orientation},
        {"android.colorCorrection.transform", ANDROID_COLOR_CORRECTION_TRANSFORM, false, 10, true,
         colourTransform},
        {kMaxStreamSizeName, MAX_STREAM_SIZE, false, 7, false, maxStreamSize},
    };
    return changes;
}

}  // namespace vel::sim
