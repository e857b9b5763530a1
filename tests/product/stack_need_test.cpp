// How much stack each entry point of the HAL or of a peer needs: it runs on a painted stack, and what is not
// painted any more was used. That counts the library and what it calls: RapidJSON, liblog, the C++ library,
// and in place of the platform's own code the workstation's metadata library, proxy and queues, with a fake
// service and a fake application's queue. What a device's binder needs within a call to a peer is not seen.
#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "Capture.h"
#include "DeepText.h"
#include "HelperFixture.h"
#include "ScriptedProducer.h"
#include "VelImgSubHelper.h"

#include <gui/bufferqueue/1.0/WGraphicBufferProducer.h>

#if !defined(__OPTIMIZE__) || defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define FRAMES_ARE_NOT_THE_PRODUCTS
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define FRAMES_ARE_NOT_THE_PRODUCTS
#endif
#endif

namespace {

using namespace android;
using Wrapper = TWGraphicBufferProducer<HGraphicBufferProducer>;

constexpr size_t kMostBytes = size_t{24} * 1024;

// In bytes, below the caller's own frame.
size_t stackUsedBy(const std::function<void()>& action) {
    constexpr unsigned char kPaint = 0xA5;
    std::vector<unsigned char> stack(kSmallStackBytes, kPaint);
    const unsigned char* top = nullptr;
    const auto body = [&] {
        top = static_cast<const unsigned char*>(__builtin_frame_address(0));
        action();
    };
    onASmallStack(body, stack.data());
    const auto isUsed = [](unsigned char byte) { return byte != kPaint; };
    return static_cast<size_t>(top - &*std::find_if(stack.begin(), stack.end(), isUsed));
}

const std::string kConfiguration =
    R"({"imgsub-configure-stream":{"version":"v1","image-width":640,"image-height":480,)"
    R"("hal-consumer-usage":3,"hal-consumer-buffer-count":10,"hal-consumer-v4l2-format":"RAW_PRIVATE"}})";
const std::string kFilters =
    R"({"filter-requests":["android.control.aeMode"],"filter-results":["android.sensor.timestamp",)"
    R"("android.lens.poseRotation","android.colorCorrection.transform","com.example.unknown"]})";
const std::string kChanges =
    R"({"android.control.aeMode":[1],"android.colorCorrection.transform":[[1,1],[1,2]],)"
    R"("android.lens.poseRotation":[0.1,-2.5e-30,3],"com.example.unknown":[1]})";
const std::string kDeep = repeated("{\"event\":[", 100000) + "1" + repeated("]}", 100000);

class AnEntryPoint : public ConnectedHelperFixture {
  protected:
    AnEntryPoint() {
        for (auto client : {ClientType::CLIENT_APP, ClientType::CLIENT_IMG_SUB})
            service->offerSurface(client, new Wrapper(queue));
        for (int i = 0; i < 4; ++i)
            queue->onDequeue({IGraphicBufferProducer::BUFFER_NEEDS_REALLOCATION, i});
    }
    void expectLittle(const std::string& name, const std::function<void()>& action) {
        const size_t bytes = stackUsedBy(action);
        std::printf("%6zu bytes of stack: %s\n", bytes, name.c_str());
        EXPECT_LE(bytes, kMostBytes) << name;
    }
    // As the service hands it over.
    void command(const std::string& text) {
        const auto reply = [](const auto&) {};
        expectLittle("command " + text.substr(0, 50), [&] { (void)callback->onCommand(text, reply).isOk(); });
    }
    void capture(Capture::Kind kind, const std::string& reply, float value = 0.1f) {
        service->setReply(ClientType::CLIENT_APP, reply);
        CameraMetadata buffer = makeMetadata(3, 128);
        addValues<int64_t>(buffer.get(), ANDROID_SENSOR_TIMESTAMP, {52301113000});
        addValues<float>(buffer.get(), ANDROID_LENS_POSE_ROTATION, {1e-30f, 1e30f, value});
        addValues<camera_metadata_rational_t>(buffer.get(), ANDROID_COLOR_CORRECTION_TRANSFORM, {{1, 128}});
        Capture of(std::move(buffer), kind);
        expectLittle("capture answered by " + reply.substr(0, 40),
                     [&] { helper->handleCaptureMetadata(of.md, 4); });
    }

    const sp<ScriptedProducer> queue{new ScriptedProducer};
    const sp<FakeDesktopService::ICameraDesktopCallback> callback =
        service->callback(ClientType::CLIENT_CAMERA_HAL);
};

TEST_F(AnEntryPoint, NeedsLittleStack) {
#ifdef FRAMES_ARE_NOT_THE_PRODUCTS
    GTEST_SKIP() << "not optimised, or sanitized: the frames are not those of the product";
#endif
    uint32_t id = 0;
    expectLittle("getInstance", [] { VelChiDesktopHelper::getInstance(); });
    expectLittle("updateCameraIdOnHalOpen", [&] { helper->updateCameraIdOnHalOpen(id); });
    expectLittle("needsCameraIdSwitch", [&] { helper->needsCameraIdSwitch(99, id); });
    expectLittle("isDesktopMode", [&] { helper->isDesktopMode(99, FWK_CAMERA_ID); });
    expectLittle("getCurrentOverrideId", [&] { helper->getCurrentOverrideId(99); });
    expectLittle("triggerSessionRestart", [&] { helper->triggerSessionRestart(0); });
    expectLittle("sendSessionRestartDoneToApp", [&] { helper->sendSessionRestartDoneToApp(0, 2); });
    expectLittle("sendImgSubHalReadyToApp", [&] { helper->sendImgSubHalReadyToApp(); });

    for (const char* text :
         {"", R"({"event":{"type":"cameraOpen","id":"0","isDesktop":true,"packageName":"org.example"}})",
          R"({"event":{"type":"cameraClosed","id":"none"}})",
          R"({"general":{"originalId":0,"overrideId":2}})",
          R"({"get":{"what":"overrideId","originalId":0,"clientName":"org.example.desktop"}})",
          R"({"get":{"what":"version"}})"})
        command(text);
    command(kDeep);
    command(R"({"filter-results":[)" + repeated(R"("android.sensor.timestamp",)", 5000) + "0]}");
    command(kFilters);

    capture(Capture::RESULT, "");
    capture(Capture::RESULT, "no JSON");
    capture(Capture::REQUEST, kChanges);
    capture(Capture::RESULT, kChanges);
    capture(Capture::RESULT, kChanges, std::nanf(""));
    capture(Capture::RESULT, R"({"android.control.aeRegions":[7)" + repeated(",7", 5000) + "]}");
    capture(Capture::RESULT, R"({"deep":)" + kDeep + R"(,"android.control.aeMode":[1]})");

    expectLittle("connectProducer", [&] { helper->connectProducer(640, 480, HAL_PIXEL_FORMAT_RGBA_8888); });
    expectLittle("getFrameToFill", [&] { EXPECT_NE(helper->getFrameToFill(), nullptr); });
    expectLittle("queueFilledFrame", [&] { helper->queueFilledFrame(1); });
    expectLittle("disconnectProducer", [&] { helper->disconnectProducer(); });

    command(kConfiguration);
    service->offerSurface(ClientType::CLIENT_IMG_SUB, new Wrapper(queue));
    auto images = std::atomic_load(&helper->mImgSubHelper);
    std::shared_ptr<AImage> image;
    expectLittle("imgSubGetOutputFrameToFill",
                 [&] { EXPECT_NE(images->imgSubGetOutputFrameToFill(0), nullptr); });
    expectLittle("imgSubQueueOutputFrame", [&] { images->imgSubQueueOutputFrame(0, 1); });
    expectLittle("imgSubAcquireFrame", [&] { images->imgSubAcquireFrame(0, image); });
    expectLittle("cancelImgSubFrames", [&] { images->cancelImgSubFrames(0); });
    images.reset();
    command(kConfiguration);
    expectLittle("onHalClose", [&] { helper->onHalClose(0); });
    command(kConfiguration);
    expectLittle("ImgSubNodeDisconnect", [&] { helper->ImgSubNodeDisconnect(); });
    expectLittle("handleDeathNotification", [&] { helper->handleDeathNotification(); });
    capture(Capture::RESULT, kChanges);  // which connects first
}

}  // namespace
