#include <gmock/gmock.h>

#include <limits>
#include <thread>

#include "Capture.h"
#include "HelperFixture.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const std::string kStreamSizeTag = "com.brisel.zint.velc2d.MaxStreamSize";

CameraMetadata makeTimestamp(int64_t time) {
    CameraMetadata buffer = makeMetadata(1, 8);
    addValues<int64_t>(buffer.get(), ANDROID_SENSOR_TIMESTAMP, {time});
    return buffer;
}

// Framework camera 0 is open as 4; the application answers every message with the same text.
class ACaptureHook : public ConnectedHelperFixture {
  protected:
    ACaptureHook() {
        uint32_t id = 0;
        helper->updateCameraIdOnHalOpen(id);
    }

    void answer(const std::string& reply) { service->setReply(ClientType::CLIENT_APP, reply); }
    std::vector<std::string> sent() const { return service->calls("sendCommand 0 "); }
    std::string lastSent() const { return sent().back(); }
    void command(const std::string& text) { EXPECT_EQ(send(text), "OK_HAL"); }
    void run(Capture& capture, unsigned cameraId = 4) { helper->handleCaptureMetadata(capture.md, cameraId); }
};

TEST(DesktopCaptureMetadata, IsLaidOutAsTheHalKnowsIt) {
    EXPECT_EQ(offsetof(DesktopCaptureMetadata, frameNumber), sizeof(void*));
    EXPECT_EQ(offsetof(DesktopCaptureMetadata, isRequest), sizeof(void*) + 4);
    EXPECT_EQ(offsetof(DesktopCaptureMetadata, isMetadataReplaced), sizeof(void*) + 5);
}

TEST_F(ACaptureHook, SendsEveryFrameEvenWithoutAFilter) {
    Capture result(makeTimestamp(5)), request(nullptr, Capture::REQUEST);
    result.md.frameNumber = 118;
    request.md.frameNumber = UINT32_MAX;
    run(result);
    run(request, 7);
    EXPECT_THAT(
        sent(),
        ElementsAre(
            R"(sendCommand 0 {"cameraIds":{"originalId":0,"overrideId":4},"frame_number":118,"result":{}})",
            R"(sendCommand 0 {"cameraIds":{"originalId":7,"overrideId":7},"frame_number":4294967295,"request":{}})"));
    EXPECT_THAT(log.texts(), IsEmpty());

    run(result, 100);
    EXPECT_THAT(lastSent(), HasSubstr(R"({"originalId":100,"overrideId":100})"));
    EXPECT_THAT(logged(), ElementsAre(HasSubstr("Invalid camera id 100")));
}

TEST_F(ACaptureHook, SendsTheTagsOfTheMatchingFilter) {
    command(
        R"({"filter-requests":["android.control.aeMode"],"filter-results":["android.sensor.timestamp"]})");
    for (const auto kind : {Capture::REQUEST, Capture::RESULT}) {
        CameraMetadata buffer = makeMetadata(2, 8);
        addValues<uint8_t>(buffer.get(), ANDROID_CONTROL_AE_MODE, {1});
        addValues<int64_t>(buffer.get(), ANDROID_SENSOR_TIMESTAMP, {52301113000});
        Capture capture(std::move(buffer), kind);
        run(capture);
    }
    EXPECT_THAT(sent(), ElementsAre(HasSubstr(R"("request":{"android.control.aeMode":[1]}})"),
                                    HasSubstr(R"("result":{"android.sensor.timestamp":[52301113000]}})")));
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(ACaptureHook, WritesTheAnswerIntoTheCapture) {
    answer(R"({"android.control.aeMode":[1],"no.such":[1],"android.sensor.timestamp":[6]})");
    Capture result(makeTimestamp(5));
    run(result);
    EXPECT_TRUE(result.md.isMetadataReplaced);
    EXPECT_THAT(valuesOf<uint8_t>(result.current, ANDROID_CONTROL_AE_MODE), ElementsAre(1));
    EXPECT_THAT(valuesOf<int64_t>(result.current, ANDROID_SENSOR_TIMESTAMP), ElementsAre(6));
    EXPECT_THAT(logged(), IsEmpty()) << "the answer itself is not logged";
}

TEST_F(ACaptureHook, LeavesTheCaptureAloneWithoutAUsableAnswer) {
    Capture result(makeTimestamp(5)), request(makeTimestamp(5), Capture::REQUEST);
    run(result);
    EXPECT_THAT(log.texts(), IsEmpty()) << "an empty answer is no failure";
    answer("OK");
    run(result);
    answer(R"({"android.sensor.timestamp":[6])");
    run(request);
    EXPECT_THAT(logged(), ElementsAre("E handleCaptureMetadata: failed to parse result "
                                      "from result: err=3 at 0: "
                                      "for str: OK",
                                      "E handleCaptureMetadata: failed to parse result "
                                      "from request: err=6 at 31: "
                                      R"(for str: {"android.sensor.timestamp":[6])"));
    log.clear();
    vel::host::clearLocalServices();
    helper->disconnectFromServiceLocked();
    run(result);
    EXPECT_EQ(log.count("Service not available"), 1u);
    EXPECT_EQ(log.count("handleCaptureMetadata"), 0u);
    for (const Capture* capture : {&result, &request}) {
        EXPECT_FALSE(capture->md.isMetadataReplaced);
        EXPECT_THAT(valuesOf<int64_t>(capture->current, ANDROID_SENSOR_TIMESTAMP), ElementsAre(5));
    }
}

TEST_F(ACaptureHook, AddsTheStreamSizeOfTheFramesSlotToATimestamp) {
    auto& sizes = DesktopHelperTestAccess::maxStreamSizes(*helper);
    sizes[3] = {4000, 3000};
    sizes[4] = {0, 3000};
    Capture result(makeTimestamp(5));
    result.md.frameNumber = 35;
    run(result);
    EXPECT_THAT(lastSent(), HasSubstr(R"("result":{}})")) << "there is no timestamp to go with";

    command(R"({"filter-results":["android.sensor.timestamp"]})");
    run(result);
    EXPECT_THAT(lastSent(), HasSubstr(R"("result":{"android.sensor.timestamp":[5],")" + kStreamSizeTag +
                                      R"(":[4000,3000]}})"));
    for (uint32_t frame : {36u, 38u}) {
        result.md.frameNumber = frame;
        run(result);
        EXPECT_THAT(lastSent(), HasSubstr(R"("result":{"android.sensor.timestamp":[5]}})"));
    }
    command(R"({"filter-requests":["android.sensor.timestamp"]})");
    Capture request(makeTimestamp(5), Capture::REQUEST);
    request.md.frameNumber = 3;
    run(request);
    EXPECT_THAT(lastSent(), HasSubstr(kStreamSizeTag)) << "in a request too";
    EXPECT_EQ(sizes.size(), 3u);
    EXPECT_EQ(sizes.at(6), std::make_pair(0, 0)) << "the slot of frame 38 was made by looking";
}

TEST_F(ACaptureHook, PrefersTheStreamSizeThatTheCaptureHolds) {
    VendorTags vendor("com.brisel.zint.velc2d", {{"MaxStreamSize", TYPE_INT32}});
    helper->setVendorTagCallback(vendor.resolver());
    command(R"({"filter-results":["android.sensor.timestamp",")" + kStreamSizeTag + "\"]}");
    DesktopHelperTestAccess::maxStreamSizes(*helper)[0] = {4000, 3000};
    CameraMetadata buffer = makeMetadata(2, 16);
    addValues<int64_t>(buffer.get(), ANDROID_SENSOR_TIMESTAMP, {5});
    addValues<int32_t>(buffer.get(), VENDOR_SECTION_START, {640, 480});
    Capture result(std::move(buffer));
    run(result);
    EXPECT_THAT(lastSent(), HasSubstr(kStreamSizeTag + R"(":[640,480])"));
    EXPECT_THAT(lastSent(), testing::Not(HasSubstr("4000")));
}

TEST_F(ACaptureHook, LeavesOutTagsThatJsonCannotExpress) {
    command(R"({"filter-results":["android.lens.focusDistance","android.lens.focalLength",
                                  "android.control.aeMode","android.colorCorrection.transform"]})");
    CameraMetadata buffer = makeMetadata(4, 64);
    addValues<float>(buffer.get(), ANDROID_LENS_FOCUS_DISTANCE,
                     {1.0f, std::numeric_limits<float>::quiet_NaN()});
    addValues<float>(buffer.get(), ANDROID_LENS_FOCAL_LENGTH, {-std::numeric_limits<float>::infinity()});
    addValues<uint8_t>(buffer.get(), ANDROID_CONTROL_AE_MODE, {1});
    addValues<camera_metadata_rational_t>(buffer.get(), ANDROID_COLOR_CORRECTION_TRANSFORM, {{1, 0}});
    Capture result(std::move(buffer));
    result.md.frameNumber = 9;
    run(result);
    EXPECT_THAT(lastSent(), HasSubstr(R"("android.control.aeMode":[1])"));
    EXPECT_THAT(lastSent(), HasSubstr(R"("android.colorCorrection.transform":[[1,0]])"));
    EXPECT_THAT(lastSent(), testing::Not(HasSubstr("lens")));
    EXPECT_THAT(logged(), ElementsAre("E handleCaptureMetadata: left non-finite values out of frame 9"));
}

TEST_F(ACaptureHook, LetsTheApplicationSendCommandsBeforeItAnswers) {
    service->setReply(ClientType::CLIENT_APP, [this](ClientType, const std::string&) {
        command(
            R"({"filter-results":["android.sensor.timestamp"],"general":{"originalId":1,"overrideId":1}})");
        std::thread([this] { command(R"({"filter-requests":[]})"); }).join();
        return helper->handleCommand(R"({"get":{"what":"overrideId","originalId":0,"clientName":"x"}})") ==
                       R"({"overrideId":4})"
                   ? R"({"android.control.aeMode":[1]})"
                   : "";
    });
    Capture result(makeTimestamp(5));
    run(result);
    EXPECT_THAT(valuesOf<uint8_t>(result.current, ANDROID_CONTROL_AE_MODE), ElementsAre(1));
    answer("");
    run(result);
    EXPECT_THAT(lastSent(), HasSubstr(R"("result":{"android.sensor.timestamp":[5]}})"));
}

TEST_F(ACaptureHook, RunsOnSeveralCaptureThreads) {
    constexpr uint32_t kFrames = 200;
    command(R"({"filter-results":["android.sensor.timestamp"]})");
    answer(R"({"android.control.aeMode":[1]})");
    const auto runFrames = [this] {
        for (uint32_t frame = 0; frame < kFrames; ++frame) {
            Capture result(makeTimestamp(frame));
            result.md.frameNumber = frame;
            run(result);
            ASSERT_THAT(valuesOf<uint8_t>(result.current, ANDROID_CONTROL_AE_MODE), ElementsAre(1));
        }
    };
    std::thread other(runFrames);
    runFrames();
    other.join();
    EXPECT_EQ(sent().size(), 2 * kFrames);
    EXPECT_EQ(DesktopHelperTestAccess::maxStreamSizes(*helper).size(), 32u);
}

}  // namespace
