#include "SyntheticSensor.h"

#include <cmath>
#include <initializer_list>
#include <stdexcept>

#include "MetadataChanges.h"

namespace vel::sim {

namespace {

constexpr size_t kEntries = 20;
constexpr size_t kDataBytes = 512;
constexpr int32_t kWidth = 4000, kHeight = 3000;
constexpr uint32_t kSettlingFrames = 10;
// Of the states of exposure, focus and white balance alike.
constexpr uint8_t kSearching = 1, kSettled = 2;
constexpr uint8_t kModeOn = 1, kFocusContinuously = 4;
constexpr double kBaseExposureNs = 5e6;
constexpr double kCompensationSteps = 6;  // to double the exposure

template <typename T>
void add(const CameraMetadata& buffer, uint32_t tag, std::initializer_list<T> values) {
    if (add_camera_metadata_entry(buffer.get(), tag, values.begin(), values.size()) != 0)
        throw std::logic_error("the sensor's buffer is too small");
}

CameraMetadata makeBuffer() {
    return CameraMetadata(allocate_camera_metadata(kEntries, kDataBytes));
}

int32_t compensationOf(const CameraMetadata& request) {
    camera_metadata_ro_entry_t entry = {};
    const int status =
        find_camera_metadata_ro_entry(request.get(), ANDROID_CONTROL_AE_EXPOSURE_COMPENSATION, &entry);
    return status == 0 && entry.count == 1 ? entry.data.i32[0] : 0;
}

void addExposure(const CameraMetadata& result, int32_t compensation, uint32_t framesPerSecond) {
    const double exposureNs = kBaseExposureNs * std::exp2(compensation / kCompensationSteps);
    add<int32_t>(result, ANDROID_CONTROL_AE_EXPOSURE_COMPENSATION, {compensation});
    add<int64_t>(result, ANDROID_SENSOR_EXPOSURE_TIME, {std::llround(exposureNs)});
    add<int32_t>(result, ANDROID_SENSOR_SENSITIVITY, {100});
    add<int64_t>(result, ANDROID_SENSOR_FRAME_DURATION, {1000000000 / int64_t{framesPerSecond}});
}

void addStates(const CameraMetadata& result, bool settled) {
    for (uint32_t tag : {ANDROID_CONTROL_AE_STATE, ANDROID_CONTROL_AF_STATE, ANDROID_CONTROL_AWB_STATE})
        add<uint8_t>(result, tag, {settled ? kSettled : kSearching});
}

void addOptics(const CameraMetadata& result, double seconds) {
    const float swing = static_cast<float>(std::sin(seconds));
    const float half = 0.05f * swing;  // of the angle of a head that turns about its vertical axis
    add<float>(result, ANDROID_LENS_FOCUS_DISTANCE, {0.5f + 0.25f * swing});
    add<float>(result, ANDROID_LENS_POSE_ROTATION, {0.0f, std::sin(half), 0.0f, std::cos(half)});
    add<float>(result, ANDROID_LENS_POSE_TRANSLATION, {0.031f, 0.0f, 0.002f * swing});
    add<int32_t>(result, ANDROID_SCALER_CROP_REGION, {0, 0, kWidth, kHeight});
}

void addColour(const CameraMetadata& result) {
    add<float>(result, ANDROID_COLOR_CORRECTION_GAINS, {1.9f, 1.0f, 1.0f, 1.6f});
    add<camera_metadata_rational_t>(result, ANDROID_COLOR_CORRECTION_TRANSFORM,
                                    {{1, 1}, {0, 1}, {0, 1}, {0, 1}, {1, 1}, {0, 1}, {0, 1}, {0, 1}, {1, 1}});
}

}  // namespace

CameraMetadata SyntheticSensor::request() const {
    CameraMetadata request = makeBuffer();
    add<uint8_t>(request, ANDROID_CONTROL_AE_MODE, {kModeOn});
    add<uint8_t>(request, ANDROID_CONTROL_AF_MODE, {kFocusContinuously});
    add<uint8_t>(request, ANDROID_CONTROL_AWB_MODE, {kModeOn});
    add<int32_t>(request, ANDROID_CONTROL_AE_EXPOSURE_COMPENSATION, {0});
    const auto rate = static_cast<int32_t>(mFramesPerSecond);
    add<int32_t>(request, ANDROID_CONTROL_AE_TARGET_FPS_RANGE, {rate, rate});
    add<int32_t>(request, ANDROID_SCALER_CROP_REGION, {0, 0, kWidth, kHeight});
    return request;
}

CameraMetadata SyntheticSensor::result(uint32_t frame, int64_t timestampNs,
                                       const CameraMetadata& request) const {
    CameraMetadata result = makeBuffer();
    add<int64_t>(result, ANDROID_SENSOR_TIMESTAMP, {timestampNs});
    addExposure(result, compensationOf(request), mFramesPerSecond);
    addStates(result, frame >= kSettlingFrames);
    addOptics(result, static_cast<double>(frame) / mFramesPerSecond);
    addColour(result);
    add<int32_t>(result, MAX_STREAM_SIZE, {kWidth, kHeight});
    add<float>(result, SENSOR_TEMPERATURE, {36.5f + 0.01f * static_cast<float>(frame % 100)});
    return result;
}

}  // namespace vel::sim
