#pragma once

#include <system/camera_metadata.h>

#include <cstdint>
#include <memory>

namespace vel::sim {

struct FreeCameraMetadata {
    void operator()(camera_metadata_t* buffer) const { free_camera_metadata(buffer); }
};
using CameraMetadata = std::unique_ptr<camera_metadata_t, FreeCameraMetadata>;

/**
 * Gives each frame the metadata that a sensor and its framework would. Throws std::logic_error when it made
 * too small a buffer.
 */
class SyntheticSensor {
  public:
    explicit SyntheticSensor(uint32_t framesPerSecond) : mFramesPerSecond(framesPerSecond) {}

    /** What the framework asks for: automatic modes, no exposure compensation, the whole sensor. */
    CameraMetadata request() const;

    /**
     * What the sensor reports of a frame: an exposure that follows the compensation asked for, the states of
     * the automatic modes, which settle in ten frames, optics, colour, pose, and the vendor tags.
     */
    CameraMetadata result(uint32_t frame, int64_t timestampNs, const CameraMetadata& request) const;

  private:
    const uint32_t mFramesPerSecond;
};

}  // namespace vel::sim
