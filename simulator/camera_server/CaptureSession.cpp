#include "CaptureSession.h"

#include <DesktopCaptureMetadata.h>
#include <VelChiDesktopHelper.h>

#include <chrono>
#include <cstring>

#include "CaptureEvents.h"
#include "EventWriter.h"
#include "MetadataChanges.h"
#include "Program.h"
#include "Timeline.h"

namespace vel::sim {

namespace {

double microseconds(const LatencyStats& stats, double percent) {
    return static_cast<double>(stats.percentileNs(percent)) / 1e3;
}

bool holds(const CameraMetadata& buffer, const MetadataChange& change, uint32_t frame) {
    const std::vector<int32_t> expected = change.values(frame);
    const size_t valuesPerElement = change.isRational ? 2 : 1;
    camera_metadata_ro_entry_t entry = {};
    return find_camera_metadata_ro_entry(buffer.get(), change.tag, &entry) == 0 &&
           entry.count * valuesPerElement == expected.size() &&
           std::memcmp(entry.data.i32, expected.data(), expected.size() * sizeof(expected[0])) == 0;
}

}  // namespace

CaptureSession::CaptureSession(VelChiDesktopHelper* helper, uint32_t fwkId,
                               const std::atomic<uint32_t>& cameraId, uint32_t framesPerSecond,
                               const StopSignal& stop)
    : mHelper(helper),
      mFwkId(fwkId),
      mCameraId(cameraId),
      mFramesPerSecond(framesPerSecond),
      mStop(stop),
      mSensor(framesPerSecond),
      mTaken(metadataChanges().size()) {}

void CaptureSession::run(uint32_t frames) {
    const auto start = StopSignal::Clock::now();
    uint32_t frame = 0;
    for (; frame < frames; ++frame) {
        // Counted from the start, so that a late frame does not delay those behind it.
        if (!mStop.waitUntil(start + std::chrono::nanoseconds(frame * 1000000000LL / mFramesPerSecond)))
            break;
        captureFrame(frame);
        const bool endsSecond = (frame + 1) % mFramesPerSecond == 0 || frame + 1 == frames;
        if (endsSecond) printSecond(frame);
    }
    printClosing(frame);
}

void CaptureSession::captureFrame(uint32_t frame) {
    CameraMetadata request = mSensor.request();
    exchange(request, frame, true);
    CameraMetadata result = mSensor.result(frame, steadyNowNs(), request);
    exchange(result, frame, false);
}

void CaptureSession::exchange(CameraMetadata& buffer, uint32_t frame, bool isRequest) {
    const CameraMetadata before(events::areWanted() ? clone_camera_metadata(buffer.get()) : nullptr);
    camera_metadata_t* current = buffer.get();
    DesktopCaptureMetadata capture;
    capture.metadata = &current;
    capture.frameNumber = frame;
    capture.isRequest = isRequest;

    const int64_t startNs = steadyNowNs();
    mHelper->handleCaptureMetadata(capture, mCameraId);
    const int64_t endNs = steadyNowNs();
    mSecond.record(endNs - startNs);
    mAll.record(endNs - startNs);

    if (capture.isMetadataReplaced) buffer.reset(current);  // frees the one that was replaced
    tellExchange(mFwkId, frame, isRequest, startNs, endNs);
    tellChanges(mFwkId, frame, isRequest, before.get(), buffer.get());
    countChanges(buffer, frame, isRequest);
}

void CaptureSession::countChanges(const CameraMetadata& buffer, uint32_t frame, bool isRequest) {
    for (size_t i = 0; i < mTaken.size(); ++i) {
        const MetadataChange& change = metadataChanges()[i];
        if (change.applies(frame, isRequest) && holds(buffer, change, frame)) ++mTaken[i];
    }
}

void CaptureSession::printSecond(uint32_t lastFrame) {
    printLine("second %u: %llu exchanges, median %.0f us, p99 %.0f us", lastFrame / mFramesPerSecond + 1,
              static_cast<unsigned long long>(mSecond.count()), microseconds(mSecond, 50),
              microseconds(mSecond, 99));
    tellExchangeTimes(mSecond);
    mSecond = LatencyStats();
}

void CaptureSession::printClosing(uint32_t frames) const {
    for (size_t i = 0; i < mTaken.size(); ++i) {
        const MetadataChange& change = metadataChanges()[i];
        printLine("%-7s %-38s expected %3u, taken %3u", change.isRequest ? "request" : "result", change.name,
                  change.countAmong(frames), mTaken[i]);
    }
    tellCapturesEnd(mFwkId, frames, mAll);
    printLine("captured %u frames: %llu exchanges, median %.0f us, p99 %.0f us", frames,
              static_cast<unsigned long long>(mAll.count()), microseconds(mAll, 50), microseconds(mAll, 99));
}

}  // namespace vel::sim
