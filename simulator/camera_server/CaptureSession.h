#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "LatencyStats.h"
#include "StopSignal.h"
#include "SyntheticSensor.h"

class VelChiDesktopHelper;

namespace vel::sim {

/**
 * Captures frames of an open camera and lets the application see and change the metadata of each request and
 * each result, as a HAL does. One thread.
 */
class CaptureSession {
  public:
    /** fwkId: the framework camera; cameraId: what is open for it, which a restart may change meanwhile. */
    CaptureSession(VelChiDesktopHelper* helper, uint32_t fwkId, const std::atomic<uint32_t>& cameraId,
                   uint32_t framesPerSecond, const StopSignal& stop);

    /**
     * Captures the frames at the steady rate, and blocks until all are done or the signal is set. Prints a
     * line for each second of frames with the times of their exchanges, and at the end how often each change
     * of the application was taken.
     */
    void run(uint32_t frames);

  private:
    void captureFrame(uint32_t frame);
    void exchange(CameraMetadata& buffer, uint32_t frame, bool isRequest);
    void countChanges(const CameraMetadata& buffer, uint32_t frame, bool isRequest);
    void printSecond(uint32_t lastFrame);
    void printClosing(uint32_t frames) const;

    VelChiDesktopHelper* const mHelper;
    const uint32_t mFwkId;
    const std::atomic<uint32_t>& mCameraId;
    const uint32_t mFramesPerSecond;
    const StopSignal& mStop;
    const SyntheticSensor mSensor;
    LatencyStats mSecond;  // of the current second's exchanges
    LatencyStats mAll;
    std::vector<uint32_t> mTaken;  // for each of metadataChanges()
};

}  // namespace vel::sim
