#include "Activities.h"

#include <VelChiDesktopHelper.h>
#include <VelImgSubHelper.h>
#include <media/NdkImageReader.h>
#include <ui/GraphicBuffer.h>

#include <algorithm>

#include "Capture.h"
#include "FrameBuffer.h"
#include "FrameHeader.h"
#include "Peers.h"
#include "Timeline.h"

namespace vel::chaos {

using android::GraphicBuffer;
using android::sp;
using sim::MappedBuffer;
using sim::steadyNowNs;
using ClientType = sim::ServiceClient::ClientType;

namespace {

constexpr uint32_t kOtherCamera = 1;
constexpr uint32_t kAlternatives[] = {2, 3};  // to be opened in its place
constexpr int32_t kCompensation = 0;          // asked for; the application changes it in frame 0

}  // namespace

int64_t Capture::attempt() {
    CameraMetadata request = makeMetadata(4, 64);
    addValues<int32_t>(request.get(), ANDROID_CONTROL_AE_EXPOSURE_COMPENSATION, {kCompensation});
    ::Capture capture(std::move(request), ::Capture::REQUEST);
    const int64_t startNs = steadyNowNs();
    mLibrary.meter.measure("handleCaptureMetadata", MayWait::FOR_PEERS,
                           [&] { mLibrary.helper.handleCaptureMetadata(capture.md, kDesktopOverride); });
    const auto values = valuesOf<int32_t>(capture.current, ANDROID_CONTROL_AE_EXPOSURE_COMPENSATION);
    return values == std::vector<int32_t>{kCompensation} ? 0 : startNs;
}

Question::Question()
    : mCameraService(
          ClientType::CLIENT_CAMERA_SERVICE, [](const std::string&) { return "OK_CAMERA_SERVICE"; },
          nullptr) {}

int64_t Question::attempt() {
    const int64_t startNs = steadyNowNs();
    const auto reply =
        mCameraService.send(ClientType::CLIENT_CAMERA_HAL,
                            R"({"get":{"what":"overrideId","originalId":0,"clientName":"org.example"}})");
    return reply.ok && reply.text.find("overrideId") != std::string::npos ? startNs : 0;
}

int64_t PreviewFrame::attempt() {
    const auto width = static_cast<uint32_t>(sim::frameRowBytes(sim::kPreviewSize));
    const int64_t startNs = steadyNowNs();
    mIsConnected = mIsConnected || mLibrary.meter.measure("connectProducer", MayWait::FOR_PEERS, [&] {
        return mLibrary.helper.connectProducer(width, 1, AIMAGE_FORMAT_RAW_PRIVATE);
    });
    if (!mIsConnected) return 0;
    const sp<GraphicBuffer> buffer = mLibrary.meter.measure("getFrameToFill", MayWait::FOR_PEERS,
                                                            [&] { return mLibrary.helper.getFrameToFill(); });
    if (buffer == nullptr) return 0;
    mLibrary.meter.measure("queueFilledFrame", MayWait::FOR_PEERS,
                           [&] { mLibrary.helper.queueFilledFrame(startNs); });
    return startNs;
}

int64_t SubstitutedFrame::attempt() {
    const auto substitution = std::atomic_load(&mLibrary.helper.mImgSubHelper);
    if (substitution == nullptr || !send(*substitution)) return 0;
    return acquire(*substitution);
}

bool SubstitutedFrame::send(VelImgSubHelper& substitution) {
    const sp<GraphicBuffer> buffer =
        mLibrary.meter.measure("imgSubGetOutputFrameToFill", MayWait::FOR_PEERS,
                               [&] { return substitution.imgSubGetOutputFrameToFill(mStream); });
    if (buffer == nullptr) return false;
    const int64_t captureNs = steadyNowNs();
    {
        const MappedBuffer mapped(buffer, GraphicBuffer::USAGE_SW_WRITE_OFTEN);
        if (mapped.data() != nullptr) {
            sim::writeFrameHeader(mapped.data(), kFrameSize,
                                  {++mCounter, mStream, captureNs, sim::memoryIdentity(*buffer), 0});
        }
    }
    mLibrary.meter.measure("imgSubQueueOutputFrame", MayWait::FOR_PEERS,
                           [&] { substitution.imgSubQueueOutputFrame(mStream, captureNs); });
    return true;
}

int64_t SubstitutedFrame::acquire(VelImgSubHelper& substitution) {
    std::shared_ptr<AImage> image;
    const sp<GraphicBuffer> buffer = mLibrary.meter.measure("imgSubAcquireFrame", MayWait::FOR_PEERS, [&] {
        return substitution.imgSubAcquireFrame(mStream, image);
    });
    if (buffer == nullptr) return 0;
    const MappedBuffer mapped(buffer, GraphicBuffer::USAGE_SW_READ_OFTEN);
    if (mapped.data() == nullptr) return 0;
    const int64_t captureNs = sim::readFrameHeader(mapped.data(), kFrameSize).captureNs;
    if (captureNs <= mNewestNs) return 0;
    mNewestNs = captureNs;
    return captureNs;
}

int64_t Registry::attempt() {
    const int64_t startNs = steadyNowNs();
    VelChiDesktopHelper& helper = mLibrary.helper;
    mRequired = kAlternatives[mRequired == kAlternatives[0]];
    const uint32_t first = open();
    query(first);
    mLibrary.meter.measure("setRequiredOverrideId", MayWait::NEVER,
                           [&] { helper.setRequiredOverrideId(kOtherCamera, mRequired); });
    uint32_t original = 0;
    mLibrary.meter.measure("needsCameraIdSwitch", MayWait::NEVER,
                           [&] { return helper.needsCameraIdSwitch(first, original); });
    query(open());
    mLibrary.meter.measure("onHalClose", MayWait::NEVER, [&] { helper.onHalClose(kOtherCamera); });
    return startNs;
}

uint32_t Registry::open() {
    uint32_t cameraId = kOtherCamera;
    mLibrary.meter.measure("updateCameraIdOnHalOpen", MayWait::NEVER,
                           [&] { mLibrary.helper.updateCameraIdOnHalOpen(cameraId); });
    return cameraId;
}

void Registry::query(uint32_t cameraId) {
    VelChiDesktopHelper& helper = mLibrary.helper;
    mLibrary.meter.measure("a query of the registry", MayWait::NEVER, [&] {
        (void)helper.isDesktopMode(kDesktopCamera, FWK_CAMERA_ID);
        (void)helper.getCurrentOverrideId(kOtherCamera);
        (void)helper.getOriginalCameraId(cameraId);
        (void)helper.isCameraInOverride(cameraId);
    });
}

}  // namespace vel::chaos
