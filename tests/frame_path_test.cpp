#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <gui/BufferItemConsumer.h>
#include <hidl_host/LocalServices.h>
#include <media/NdkImageReader.h>

#include "DesktopHelperTestAccess.h"
#include "FakeDesktopService.h"
#include "LogCapture.h"
#include "ProducerSlots.h"
#include "ScriptedProducer.h"
#include "ServiceCalls.h"
#include "SignalFence.h"

#include <gui/bufferqueue/1.0/H2BGraphicBufferProducer.h>
#include <gui/bufferqueue/1.0/WGraphicBufferProducer.h>

using namespace android;
using Access = DesktopHelperTestAccess;
using hardware::graphics::bufferqueue::V1_0::utils::H2BGraphicBufferProducer;
using korvanta::hardware::camera::desktop::V2_0::ClientType;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Wrapper = TWGraphicBufferProducer<HGraphicBufferProducer>;

namespace {

constexpr char kTag[] = "VelCameraDesktopChiHelper";
constexpr uint32_t kWidth = 640;
constexpr uint32_t kHeight = 480;
constexpr uint32_t kFormat = HAL_PIXEL_FORMAT_RGBA_8888;
constexpr char kDequeue[] = "dequeue 640x480 format 1 usage 0x20";

class AFramePath : public testing::Test {
  protected:
    ~AFramePath() override {
        helper.reset();
        vel::host::clearLocalServices();
    }
    void start(bool withService = true) {
        if (withService) service = FakeDesktopService::start();
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
    std::unique_ptr<VelChiDesktopHelper> helper;
};

// Connected to a queue that answers as told, nothing logged or recorded yet.
class AScriptedFramePath : public AFramePath {
  protected:
    AScriptedFramePath() {
        start();
        offer(script);
        EXPECT_TRUE(connect());
        forget();
    }
    void forget() {
        script->forgetCalls();
        log.clear();
    }
    // Has the slot lent with a buffer.
    sp<GraphicBuffer> lend(int slot) {
        script->onDequeue({IGraphicBufferProducer::BUFFER_NEEDS_REALLOCATION, slot});
        return helper->getFrameToFill();
    }
    int32_t lentSlot() { return Access::appSlot(*helper); }

    const sp<ScriptedProducer> script{new ScriptedProducer};
};

// Connecting.

TEST_F(AFramePath, ConnectsAsTheCameraAndAllowsSixBuffers) {
    start();
    const sp<ScriptedProducer> script(new ScriptedProducer);
    offer(script);
    EXPECT_TRUE(connect());
    EXPECT_THAT(script->calls(), ElementsAre("connect api 4", "setMax 6"));
    EXPECT_THAT(logged(), ElementsAre(HasSubstr("D Got producer 0x")));
}

TEST_F(AFramePath, RefusedConnectionStillCounts) {
    start();
    const sp<ScriptedProducer> script(new ScriptedProducer);
    script->onConnect(BAD_VALUE);
    script->onSetMax(BAD_VALUE);
    offer(script);
    EXPECT_TRUE(connect()) << "the next dequeue repairs it";
    EXPECT_EQ(helper->getFrameToFill(), nullptr);
    EXPECT_THAT(script->calls(), ElementsAre("connect api 4", "setMax 6", kDequeue, "disconnect api 4 mode 0",
                                             "connect api 4", "setMax 6"));
}

TEST_F(AFramePath, WithoutAServiceIsNotConnectedAndRemembersNoSize) {
    start(false);
    EXPECT_FALSE(connect());
    EXPECT_THAT(logged(), ElementsAre("D Trying to get service", HasSubstr("D Got service"),
                                      "E Service is not available"));
    const size_t lookUps = vel::host::localLookUpCount("default");
    EXPECT_EQ(helper->getFrameToFill(), nullptr);
    EXPECT_EQ(vel::host::localLookUpCount("default"), lookUps) << "without a size nothing is tried";
}

TEST_F(AFramePath, WithoutASurfaceTriesAgainAtEachFrameAndLendsOneCallLater) {
    start();
    EXPECT_FALSE(connect());
    EXPECT_EQ(helper->getFrameToFill(), nullptr);
    EXPECT_EQ(service->calls(FakeDesktopService::Operation::GET_SURFACE).size(), 2u);
    EXPECT_THAT(logged(), IsEmpty());

    const sp<ScriptedProducer> script(new ScriptedProducer);
    script->onDequeue({1, 0});
    offer(script);
    EXPECT_EQ(helper->getFrameToFill(), nullptr) << "this call only connects";
    EXPECT_NE(helper->getFrameToFill(), nullptr);
    EXPECT_THAT(describe(service->calls(FakeDesktopService::Operation::GET_SURFACE)),
                ElementsAre("getSurface 0", "getSurface 0", "getSurface 0"));
}

TEST_F(AFramePath, BeforeAnyConnectLendsNothingAndTriesNothing) {
    start();
    service->forgetCalls();
    EXPECT_EQ(helper->getFrameToFill(), nullptr);
    helper->queueFilledFrame(1);
    helper->disconnectProducer();
    EXPECT_THAT(service->calls(), IsEmpty());
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(AFramePath, FailedAnswerOfTheServiceIsNoSurface) {
    start();
    offer(new ScriptedProducer);
    vel::host::failNextLocalCalls("default", 1, hardware::Status::fromStatusT(DEAD_OBJECT));
    EXPECT_FALSE(connect());
    EXPECT_THAT(logged(), IsEmpty());
    EXPECT_TRUE(connect());
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

// Lending.

TEST_F(AScriptedFramePath, CachesSlotsZeroToSix) {
    const sp<GraphicBuffer> buffer = lend(6);
    ASSERT_NE(buffer, nullptr);
    EXPECT_THAT(script->calls(), ElementsAre(kDequeue, "request 6"));
    EXPECT_THAT(logged(), ElementsAre("D Got re-alloc request for slot 6"));
    EXPECT_EQ(lentSlot(), 6);
    script->onDequeue({0, 6});
    EXPECT_EQ(helper->getFrameToFill(), buffer) << "without a reallocation the cached buffer comes again";
    EXPECT_EQ(log.count("re-alloc"), 1u);
}

TEST_F(AScriptedFramePath, RefusesAReallocationOutsideTheCache) {
    lend(2);
    for (int slot : {7, 63, 64, INT32_MAX, -1, -3, INT32_MIN}) {
        forget();
        EXPECT_EQ(lend(slot), nullptr) << slot;
        EXPECT_THAT(script->calls(), ElementsAre(kDequeue)) << "neither requested nor cancelled";
        EXPECT_THAT(logged(), ElementsAre("E request dequeue failed, max slots reached"));
        EXPECT_EQ(lentSlot(), 2) << "what was lent stays lent";
    }
}

TEST_F(AScriptedFramePath, FailedRequestLendsNothing) {
    lend(2);
    forget();
    script->onRequest({BAD_VALUE, nullptr});
    EXPECT_EQ(lend(3), nullptr);
    EXPECT_THAT(script->calls(), ElementsAre(kDequeue, "request 3"));
    EXPECT_THAT(logged(), ElementsAre("E request buffer failed"));
    EXPECT_EQ(lentSlot(), 2);
}

TEST_F(AScriptedFramePath, AnyOtherStatusMakesTheConnectionAnew) {
    for (int status : {2, 3, 5, -19, -32, -38, INT32_MIN}) {
        forget();
        script->onDequeue({status, 1});
        EXPECT_EQ(helper->getFrameToFill(), nullptr);
        EXPECT_THAT(script->calls(),
                    ElementsAre(kDequeue, "disconnect api 4 mode 0", "connect api 4", "setMax 6"));
        EXPECT_THAT(logged(), ElementsAre("E request dequeue failed with " + std::to_string(status),
                                          HasSubstr("D Got producer 0x")));
    }
}

TEST_F(AScriptedFramePath, WithoutASurfaceToReconnectToStaysDisconnected) {
    service->offerSurface(ClientType::CLIENT_APP, nullptr);
    EXPECT_EQ(helper->getFrameToFill(), nullptr);
    EXPECT_FALSE(Access::hasAppProducer(*helper));
    EXPECT_EQ(helper->getFrameToFill(), nullptr);
    offer(script);
    EXPECT_EQ(helper->getFrameToFill(), nullptr);
    EXPECT_NE(lend(0), nullptr);
}

TEST_F(AScriptedFramePath, LateFenceCancelsTheBufferButKeepsItCached) {
    lend(2);
    forget();
    SignalFence late;
    script->onDequeue({1, 4, late.fence()});
    EXPECT_EQ(helper->getFrameToFill(), nullptr);
    EXPECT_THAT(script->calls(), ElementsAre(kDequeue, "request 4", "cancel 4"));
    EXPECT_THAT(logged(),
                ElementsAre("D Got re-alloc request for slot 4", "W Fence hasn't been signaled yet"));
    EXPECT_EQ(lentSlot(), 2);
    ASSERT_EQ(script->cancelledFences().size(), 1u);
    late.signal();
    EXPECT_EQ(script->cancelledFences()[0]->wait(0), NO_ERROR) << "cancelled with the fence it came with";
    script->onDequeue({0, 4, late.fence()});
    EXPECT_NE(helper->getFrameToFill(), nullptr) << "a signalled fence holds nothing up";
}

TEST_F(AScriptedFramePath, SlotThatWasNeverRequestedIsLentWithoutABuffer) {
    for (int slot : {3, 7, 64, INT32_MAX, -3}) {
        forget();
        script->onDequeue({0, slot});
        EXPECT_EQ(helper->getFrameToFill(), nullptr);
        EXPECT_THAT(logged(), IsEmpty());
        helper->queueFilledFrame(1);
        EXPECT_THAT(script->calls(), ElementsAre(kDequeue, "queue " + std::to_string(slot)));
    }
}

// Queueing and disconnecting.

TEST_F(AScriptedFramePath, QueuesWithEveryValueInItsPlace) {
    for (int64_t timestamp : {int64_t{0}, int64_t{-1}, INT64_MAX, INT64_MIN}) {
        lend(1);
        helper->queueFilledFrame(timestamp);
        const ScriptedProducer::Queued queued = script->queued().back();
        EXPECT_EQ(queued.slot, 1);
        EXPECT_EQ(queued.input.timestamp, timestamp);
        EXPECT_EQ(queued.input.isAutoTimestamp, 0);
        EXPECT_EQ(queued.input.dataSpace, 0x20000);
        EXPECT_EQ(queued.input.crop, Rect(0, 0, kWidth, kHeight));
        EXPECT_EQ(queued.input.scalingMode, 1);
        EXPECT_EQ(queued.input.transform, 0u);
        EXPECT_EQ(queued.input.stickyTransform, 0u);
        EXPECT_FALSE(queued.input.fence->isValid());
        EXPECT_FALSE(queued.input.getFrameTimestamps);
    }
}

TEST_F(AScriptedFramePath, FailedQueueForgetsTheFrame) {
    lend(1);
    forget();
    script->onQueue(BAD_VALUE);
    helper->queueFilledFrame(1);
    helper->queueFilledFrame(2);
    EXPECT_THAT(script->calls(), ElementsAre("queue 1"));
    EXPECT_THAT(logged(), ElementsAre("E queue buffer failed"));
}

TEST_F(AScriptedFramePath, SecondLoanReplacesTheFirst) {
    lend(1);
    lend(2);
    helper->queueFilledFrame(1);
    helper->queueFilledFrame(2);
    ASSERT_EQ(script->queued().size(), 1u);
    EXPECT_EQ(script->queued()[0].slot, 2);
}

TEST_F(AScriptedFramePath, FrameLentBeforeADisconnectIsAFailedQueue) {
    lend(1);
    helper->disconnectProducer();
    EXPECT_EQ(lentSlot(), 1) << "a disconnect leaves the record alone";
    forget();
    helper->queueFilledFrame(1);
    EXPECT_THAT(logged(), ElementsAre("E queue buffer failed"));
    helper->queueFilledFrame(1);
    EXPECT_EQ(logged().size(), 1u);
}

TEST_F(AScriptedFramePath, FailedDisconnectDropsTheQueueAnyway) {
    script->onDisconnect(-22);
    helper->disconnectProducer();
    helper->disconnectProducer();
    EXPECT_THAT(script->calls(), ElementsAre("disconnect api 4 mode 0"));
    EXPECT_THAT(logged(), ElementsAre("E Unable to disconnect producer, -22"));
    EXPECT_FALSE(Access::hasAppProducer(*helper));
}

// What adapters never let through is met by the shared steps alone.

constexpr producer_slots::Log kSilent = {[] {}, [] {}, [](int) {},     [](status_t) {},
                                         [] {}, [] {}, [](status_t) {}};

TEST(ProducerSlots, MissingAndUnwaitableFencesCountAsSignalled) {
    const sp<ScriptedProducer> script(new ScriptedProducer);
    const sp<Fence> fences[] = {nullptr, Fence::NO_FENCE, new Fence, new Fence(1 << 20)};
    for (const sp<Fence>& fence : fences) {
        producer_slots::CachedBuffers cache;
        sp<GraphicBuffer> buffer;
        int32_t slot = -1;
        script->onDequeue({1, 5, fence});
        EXPECT_EQ(producer_slots::dequeue(*script, {1, 1, 1, 0}, cache, kSilent, slot, buffer),
                  producer_slots::Dequeued::LENT);
        EXPECT_EQ(slot, 5);
        EXPECT_EQ(buffer, cache[5]);
    }
    EXPECT_THAT(script->cancelledFences(), IsEmpty());
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
    bool sendFrame(uint8_t firstByte, int64_t timestamp) {
        const sp<GraphicBuffer> buffer = helper->getFrameToFill();
        if (buffer == nullptr) return false;
        void* pixels = nullptr;
        EXPECT_EQ(buffer->lock(GRALLOC_USAGE_SW_WRITE_RARELY, &pixels), NO_ERROR);
        *static_cast<uint8_t*>(pixels) = firstByte;
        EXPECT_EQ(buffer->unlock(), NO_ERROR);
        helper->queueFilledFrame(timestamp);
        return true;
    }
    void expectFrame(uint8_t firstByte, int64_t timestamp) {
        BufferItem item;
        ASSERT_EQ(consumer->acquireBuffer(&item, 0), NO_ERROR);
        EXPECT_EQ(item.mTimestamp, timestamp);
        EXPECT_EQ(item.mCrop, Rect(kWidth, kHeight));
        void* pixels = nullptr;
        ASSERT_EQ(item.mGraphicBuffer->lock(GRALLOC_USAGE_SW_READ_OFTEN, &pixels), NO_ERROR);
        EXPECT_EQ(*static_cast<uint8_t*>(pixels), firstByte);
        item.mGraphicBuffer->unlock();
        EXPECT_EQ(consumer->releaseBuffer(item), NO_ERROR);
    }

    sp<IGraphicBufferProducer> queue;
    sp<BufferItemConsumer> consumer;
};

TEST_F(ARealFramePath, PassesFramesWithOneReallocationForEachSlot) {
    for (uint8_t i = 0; i < 20; i++) {
        ASSERT_TRUE(sendFrame(i, 1000 + i));
        ASSERT_TRUE(sendFrame(100 + i, 2000 + i));
        expectFrame(i, 1000 + i);
        expectFrame(100 + i, 2000 + i);
    }
    EXPECT_THAT(logged(),
                ElementsAre("D Got re-alloc request for slot 0", "D Got re-alloc request for slot 1"));
}

TEST_F(ARealFramePath, FollowsTheApplicationToItsNextQueue) {
    ASSERT_TRUE(sendFrame(1, 1));
    consumer->abandon();
    makeQueue();
    log.clear();
    EXPECT_FALSE(sendFrame(2, 2));
    EXPECT_THAT(logged(), ElementsAre("E request dequeue failed with -19", HasSubstr("D Got producer 0x")));
    ASSERT_TRUE(sendFrame(3, 3));
    expectFrame(3, 3);
}

TEST_F(ARealFramePath, ForgottenBuffersComeBackThroughOneReconnection) {
    ASSERT_TRUE(sendFrame(1, 1));
    expectFrame(1, 1);
    for (int i = 0; i < 6; i++)
        ASSERT_NE(helper->getFrameToFill(), nullptr);
    EXPECT_EQ(helper->getFrameToFill(), nullptr) << "six are lent";
    EXPECT_EQ(log.count("request dequeue failed with -38"), 1u);
    ASSERT_TRUE(sendFrame(2, 2));
    expectFrame(2, 2);
}

// The reader's input as a producer for a peer.

TEST_F(AFramePath, ReaderProducerFillsTheReader) {
    start();
    AImageReader* reader = nullptr;
    ASSERT_EQ(AImageReader_new(64, 1, AIMAGE_FORMAT_RAW_PRIVATE, 2, &reader), AMEDIA_OK);
    const sp<HGraphicBufferProducer> handle = helper->getIGraphicBufferProducer(reader);
    ASSERT_NE(handle, nullptr);
    const sp<IGraphicBufferProducer> producer(new H2BGraphicBufferProducer(handle));
    producer_slots::CachedBuffers cache;
    sp<GraphicBuffer> buffer;
    int32_t slot = -1;
    producer_slots::connect(*producer);
    EXPECT_EQ(producer_slots::dequeue(*producer, {64, 1, AIMAGE_FORMAT_RAW_PRIVATE, 0}, cache, kSilent, slot,
                                      buffer),
              producer_slots::Dequeued::LENT);
    producer_slots::queue(producer, slot, 64, 1, 5, kSilent);
    AImage* image = nullptr;
    EXPECT_EQ(AImageReader_acquireNextImage(reader, &image), AMEDIA_OK);
    AImage_delete(image);
    AImageReader_delete(reader);
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(AFramePath, NullReaderHasNoProducer) {
    start();
    EXPECT_EQ(helper->getIGraphicBufferProducer(nullptr), nullptr);
    EXPECT_THAT(logged(), ElementsAre("E getIGraphicBufferProducer failed: invalid AImageReader"));
}

}  // namespace
