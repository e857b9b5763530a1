// The frames for the application. The steps that they share with the substituted images are in
// producer_slots_test.cpp.
#include <gmock/gmock.h>
#include <media/NdkImageReader.h>

#include "HelperFixture.h"
#include "ScriptedProducer.h"
#include "SignalFence.h"

#include <gui/bufferqueue/1.0/WGraphicBufferProducer.h>

using namespace android;
using Access = DesktopHelperTestAccess;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Wrapper = TWGraphicBufferProducer<HGraphicBufferProducer>;

// In place of the media library's: no reader here has a window.
extern "C" media_status_t AImageReader_getWindow(AImageReader*, ANativeWindow**) {
    return AMEDIA_ERROR_INVALID_PARAMETER;
}

namespace {

class AFramePath : public HelperFixture {
  protected:
    void offer(const sp<IGraphicBufferProducer>& producer) {
        service->offerSurface(ClientType::CLIENT_APP, new Wrapper(producer));
    }
    bool connect() { return helper->connectProducer(640, 480, HAL_PIXEL_FORMAT_RGBA_8888); }
    sp<GraphicBuffer> lend(int slot) {
        script->onDequeue({IGraphicBufferProducer::BUFFER_NEEDS_REALLOCATION, slot});
        return helper->getFrameToFill();
    }

    const sp<ScriptedProducer> script{new ScriptedProducer};
};

// Connected to a queue that answers as told, nothing logged or recorded yet.
class AScriptedFramePath : public AFramePath {
  protected:
    AScriptedFramePath() {
        start();
        offer(script);
        EXPECT_TRUE(connect());
        script->forgetCalls();
        service->forgetCalls();
        log.clear();
    }
};

TEST_F(AFramePath, WithoutAServiceIsNotConnectedAndRemembersNoSize) {
    EXPECT_FALSE(connect());
    EXPECT_THAT(logged(), ElementsAre("D Trying to get service", HasSubstr("D Got service"),
                                      "E Service is not available"));
    service = FakeDesktopService::start();
    log.clear();
    EXPECT_EQ(helper->getFrameToFill(), nullptr);
    helper->queueFilledFrame(1);
    helper->disconnectProducer();
    EXPECT_THAT(service->calls(), IsEmpty()) << "without a size nothing is tried";
    EXPECT_EQ(helper->getIGraphicBufferProducer(nullptr), nullptr);
    EXPECT_EQ(helper->getIGraphicBufferProducer(reinterpret_cast<AImageReader*>(this)), nullptr);
    EXPECT_THAT(logged(), ElementsAre("E getIGraphicBufferProducer failed: invalid AImageReader",
                                      "E Failed to get ANativeWindow"));
}

TEST_F(AFramePath, WithoutASurfaceTriesAgainAtEachFrameAndLendsOneCallLater) {
    start();
    offer(script);
    vel::host::failNextLocalCalls("default", 1, hardware::Status::fromStatusT(DEAD_OBJECT));
    EXPECT_FALSE(connect()) << "a failed answer is no surface";
    service->offerSurface(ClientType::CLIENT_APP, nullptr);
    EXPECT_FALSE(connect());
    service->forgetCalls();
    EXPECT_EQ(helper->getFrameToFill(), nullptr);
    EXPECT_EQ(helper->getFrameToFill(), nullptr);
    EXPECT_THAT(logged(), IsEmpty());

    offer(script);
    EXPECT_EQ(lend(0), nullptr) << "this call only connects";
    EXPECT_NE(helper->getFrameToFill(), nullptr);
    EXPECT_THAT(service->calls(), ElementsAre("getSurface 0", "getSurface 0", "getSurface 0"));
}

TEST_F(AScriptedFramePath, SaysWhatHappensAndReconnectsWithinTheFailedCall) {
    lend(2);
    lend(7);
    script->onRequest({BAD_VALUE, nullptr});
    lend(3);
    SignalFence late;
    script->onDequeue({0, 2, late.fence()});
    EXPECT_EQ(helper->getFrameToFill(), nullptr);
    EXPECT_EQ(Access::appSlot(*helper), 2);
    EXPECT_THAT(script->calls(), testing::Contains("dequeue 640x480 format 1 usage 0x20").Times(4));
    script->onQueue(BAD_VALUE);
    helper->queueFilledFrame(1);
    EXPECT_EQ(Access::appSlot(*helper), -1) << "a failed queue forgets the frame";

    script->forgetCalls();
    lend(4);
    script->onDequeue({3, 1});
    script->onDisconnect(-22);
    EXPECT_EQ(helper->getFrameToFill(), nullptr);
    helper->queueFilledFrame(2);
    helper->queueFilledFrame(3);
    const auto dequeue = HasSubstr("dequeue");
    EXPECT_THAT(script->calls(), ElementsAre(dequeue, "request 4", dequeue, "disconnect api 4 mode 0",
                                             "connect api 4", "setMax 6", "queue 4"));
    EXPECT_EQ(script->queued().at(0).timestamp, 2);
    EXPECT_THAT(
        logged(),
        ElementsAre("D Got re-alloc request for slot 2", "E request dequeue failed, max slots reached",
                    "E request buffer failed", "W Fence hasn't been signaled yet", "E queue buffer failed",
                    "D Got re-alloc request for slot 4", "E request dequeue failed with 3",
                    "E Unable to disconnect producer, -22", HasSubstr("D Got producer 0x")));
}

TEST_F(AScriptedFramePath, SecondConnectTakesTheNewSizeOnly) {
    EXPECT_TRUE(helper->connectProducer(1280, 720, HAL_PIXEL_FORMAT_RGB_565));
    EXPECT_THAT(service->calls(), IsEmpty());
    EXPECT_THAT(script->calls(), IsEmpty());
    lend(0);
    helper->queueFilledFrame(0);
    EXPECT_EQ(script->calls().front(), "dequeue 1280x720 format 4 usage 0x20");
    EXPECT_EQ(script->queued().front().crop, Rect(0, 0, 1280, 720));
}

TEST_F(AScriptedFramePath, WithoutASurfaceToReconnectToStaysDisconnected) {
    service->offerSurface(ClientType::CLIENT_APP, nullptr);
    EXPECT_EQ(helper->getFrameToFill(), nullptr);
    EXPECT_FALSE(Access::hasAppProducer(*helper));
}

TEST_F(AScriptedFramePath, FrameLentBeforeADisconnectIsAFailedQueue) {
    lend(1);
    script->forgetCalls();
    log.clear();
    for (int i = 0; i < 2; i++) {
        helper->disconnectProducer();
        helper->queueFilledFrame(1);
    }
    EXPECT_THAT(script->calls(), ElementsAre("disconnect api 4 mode 0"));
    EXPECT_THAT(logged(), ElementsAre("E queue buffer failed"));
}

TEST_F(AScriptedFramePath, NeedsNoServiceLinkOnceItIsConnected) {
    std::lock_guard<std::mutex> linkInUse(Access::serviceLock(*helper));
    EXPECT_NE(lend(1), nullptr);
    helper->queueFilledFrame(1);
    helper->disconnectProducer();
}

}  // namespace
