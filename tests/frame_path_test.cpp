#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <gui/BufferItemConsumer.h>
#include <hidl_host/LocalServices.h>
#include <media/NdkImageReader.h>

#include <thread>

#include "DesktopHelperTestAccess.h"
#include "FakeDesktopService.h"
#include "LogCapture.h"
#include "ScriptedProducer.h"

#include <gui/bufferqueue/1.0/WGraphicBufferProducer.h>

using namespace android;
using Access = DesktopHelperTestAccess;
using korvanta::hardware::camera::desktop::V2_0::ClientType;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Wrapper = TWGraphicBufferProducer<HGraphicBufferProducer>;

namespace {

// What this path shares with the substituted images is in producer_slots_test.cpp.

constexpr char kTag[] = "VelCameraDesktopChiHelper";
constexpr uint32_t kWidth = 640;
constexpr uint32_t kHeight = 480;
constexpr uint32_t kFormat = HAL_PIXEL_FORMAT_RGBA_8888;

class AFramePath : public testing::Test {
  protected:
    ~AFramePath() override {
        helper.reset();
        vel::host::clearLocalServices();
    }
    void start() {
        service = FakeDesktopService::start();
        helper = Access::create();
        log.clear();
    }
    void offer(const sp<IGraphicBufferProducer>& producer) {
        service->offerSurface(ClientType::CLIENT_APP, new Wrapper(producer));
    }
    bool connect(uint32_t width = kWidth) { return helper->connectProducer(width, kHeight, kFormat); }
    std::vector<std::string> logged() const { return log.texts(kTag); }

    LogCapture log;
    sp<FakeDesktopService> service;
    std::unique_ptr<VelChiDesktopHelper> helper = Access::create();
};

// Connected to a queue that answers as told, nothing logged or recorded yet.
class AScriptedFramePath : public AFramePath {
  protected:
    AScriptedFramePath() {
        start();
        offer(script);
        EXPECT_TRUE(connect());
        script->forgetCalls();
        log.clear();
    }
    sp<GraphicBuffer> lend(int slot) {
        script->onDequeue({IGraphicBufferProducer::BUFFER_NEEDS_REALLOCATION, slot});
        return helper->getFrameToFill();
    }

    const sp<ScriptedProducer> script{new ScriptedProducer};
};

TEST_F(AFramePath, WithoutAServiceIsNotConnectedAndRemembersNoSize) {
    log.clear();
    EXPECT_FALSE(connect());
    EXPECT_THAT(logged(), ElementsAre("D Trying to get service", HasSubstr("D Got service"),
                                      "E Service is not available"));
    service = FakeDesktopService::start();
    log.clear();
    EXPECT_EQ(helper->getFrameToFill(), nullptr);
    helper->queueFilledFrame(1);
    helper->disconnectProducer();
    EXPECT_THAT(service->calls(), IsEmpty()) << "without a size nothing is tried";
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(AFramePath, WithoutASurfaceTriesAgainAtEachFrameAndLendsOneCallLater) {
    start();
    const sp<ScriptedProducer> script(new ScriptedProducer);
    offer(script);
    vel::host::failNextLocalCalls("default", 1, hardware::Status::fromStatusT(DEAD_OBJECT));
    EXPECT_FALSE(connect()) << "a failed answer is no surface";
    service->offerSurface(ClientType::CLIENT_APP, nullptr);
    EXPECT_FALSE(connect());
    service->forgetCalls();
    log.clear();
    EXPECT_EQ(helper->getFrameToFill(), nullptr);
    EXPECT_EQ(helper->getFrameToFill(), nullptr);
    EXPECT_THAT(logged(), IsEmpty());

    script->onDequeue({1, 0});
    offer(script);
    EXPECT_EQ(helper->getFrameToFill(), nullptr) << "this call only connects";
    EXPECT_NE(helper->getFrameToFill(), nullptr);
    EXPECT_THAT(service->calls(FakeDesktopService::Operation::GET_SURFACE),
                ElementsAre("getSurface 0", "getSurface 0", "getSurface 0"));
}

TEST_F(AScriptedFramePath, SecondConnectTakesTheNewSizeOnly) {
    service->forgetCalls();
    EXPECT_TRUE(connect(2 * kWidth));
    EXPECT_THAT(service->calls(), IsEmpty());
    EXPECT_THAT(script->calls(), IsEmpty());
    lend(0);
    helper->queueFilledFrame(0);
    EXPECT_EQ(script->calls().front(), "dequeue 1280x480 format 1 usage 0x20");
    EXPECT_EQ(script->queued().front().input.crop, Rect(0, 0, 1280, 480));
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

TEST_F(AScriptedFramePath, BlockedDequeueLeavesTheServiceFree) {
    bool isFree = false;
    script->whileDequeueing([&] {
        std::thread([&] {
            const std::unique_lock<std::mutex> lock(Access::serviceLock(*helper), std::try_to_lock);
            isFree = lock.owns_lock();
        }).join();
    });
    EXPECT_NE(lend(1), nullptr);
    EXPECT_TRUE(isFree);
}

// Over the real queue.

class ARealFramePath : public AFramePath {
  protected:
    ARealFramePath() {
        start();
        makeQueue();
        EXPECT_TRUE(connect());
        log.clear();
    }
    void makeQueue() {
        sp<IGraphicBufferConsumer> end;
        BufferQueue::createBufferQueue(&queue, &end);
        consumer = new BufferItemConsumer(end, GRALLOC_USAGE_SW_READ_OFTEN, 2);
        offer(queue);
    }
    bool sendFrame(int64_t timestamp) {
        if (helper->getFrameToFill() == nullptr) return false;
        helper->queueFilledFrame(timestamp);
        return true;
    }
    int64_t takeFrame() {
        BufferItem item;
        if (consumer->acquireBuffer(&item, 0) != NO_ERROR) return -1;
        consumer->releaseBuffer(item);
        return item.mTimestamp;
    }

    sp<IGraphicBufferProducer> queue;
    sp<BufferItemConsumer> consumer;
};

TEST_F(ARealFramePath, PassesFramesWithOneReallocationForEachSlot) {
    for (int64_t i = 0; i < 20; i++) {
        ASSERT_TRUE(sendFrame(i));
        ASSERT_TRUE(sendFrame(100 + i));
        EXPECT_EQ(takeFrame(), i);
        EXPECT_EQ(takeFrame(), 100 + i);
    }
    EXPECT_THAT(logged(),
                ElementsAre("D Got re-alloc request for slot 0", "D Got re-alloc request for slot 1"));
}

TEST_F(ARealFramePath, FollowsTheApplicationToItsNextQueue) {
    ASSERT_TRUE(sendFrame(1));
    consumer->abandon();
    makeQueue();
    EXPECT_FALSE(sendFrame(2)) << "this call only reconnects";
    ASSERT_TRUE(sendFrame(3));
    EXPECT_EQ(takeFrame(), 3);
}

TEST_F(ARealFramePath, ForgottenBuffersComeBackThroughOneReconnection) {
    ASSERT_TRUE(sendFrame(1));
    EXPECT_EQ(takeFrame(), 1);
    for (int i = 0; i < 6; i++)
        ASSERT_NE(helper->getFrameToFill(), nullptr);
    EXPECT_EQ(helper->getFrameToFill(), nullptr) << "six are lent";
    EXPECT_EQ(log.count("request dequeue failed with -38"), 1u);
    ASSERT_TRUE(sendFrame(2));
    EXPECT_EQ(takeFrame(), 2);
}

TEST_F(AFramePath, ReaderProducerFillsTheReader) {
    AImageReader* reader = nullptr;
    ASSERT_EQ(AImageReader_new(64, 1, AIMAGE_FORMAT_RAW_PRIVATE, 2, &reader), AMEDIA_OK);
    const sp<HGraphicBufferProducer> handle = helper->getIGraphicBufferProducer(reader);
    ASSERT_NE(handle, nullptr);
    start();
    service->offerSurface(ClientType::CLIENT_APP, handle);
    ASSERT_TRUE(helper->connectProducer(64, 1, AIMAGE_FORMAT_RAW_PRIVATE));
    ASSERT_NE(helper->getFrameToFill(), nullptr);
    helper->queueFilledFrame(5);
    AImage* image = nullptr;
    EXPECT_EQ(AImageReader_acquireNextImage(reader, &image), AMEDIA_OK);
    AImage_delete(image);
    helper->disconnectProducer();
    AImageReader_delete(reader);
}

TEST_F(AFramePath, NullReaderHasNoProducer) {
    log.clear();
    EXPECT_EQ(helper->getIGraphicBufferProducer(nullptr), nullptr);
    EXPECT_THAT(logged(), ElementsAre("E getIGraphicBufferProducer failed: invalid AImageReader"));
}

}  // namespace
