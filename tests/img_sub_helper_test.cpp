#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <gui/BufferItemConsumer.h>
#include <hidl_host/LocalServices.h>
#include <media/NdkImageReader.h>
#include <string.h>

#include <atomic>
#include <thread>

#include "DeliberateLeak.h"
#include "DesktopHelperTestAccess.h"
#include "FakeDesktopService.h"
#include "ImgSubHelperTestAccess.h"
#include "LogCapture.h"
#include "ReplacementFrame.h"
#include "ScriptedProducer.h"
#include "SignalFence.h"
#include "VelImgSubHelper.h"

#include <gui/bufferqueue/1.0/H2BGraphicBufferProducer.h>
#include <gui/bufferqueue/1.0/WGraphicBufferProducer.h>

using namespace android;
using Access = ImgSubHelperTestAccess;
using hardware::graphics::bufferqueue::V1_0::utils::H2BGraphicBufferProducer;
using korvanta::hardware::camera::desktop::V2_0::ClientType;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using Wrapper = TWGraphicBufferProducer<HGraphicBufferProducer>;

namespace {

constexpr char kTag[] = "VelImgSubHelper";
constexpr int32_t kFormat = AIMAGE_FORMAT_RAW_PRIVATE;
constexpr uint32_t kImageWidth = 16;
constexpr uint32_t kImageHeight = 8;
constexpr uint32_t kRowBytes = 288;     // 96 + 128 pixels at 1.5 bytes
constexpr uint32_t kIndexOffset = 268;  // 76 into the last 96 bytes
constexpr char kDequeue[] = "dequeue 288x1 format 36 usage 0x30";

// --- The layout of a replacement
// -----------------------------------------------------------------------------

struct Layout {
    const char* name;
    uint32_t width, height;
    uint32_t blockStart;
};

class AReplacementFrame : public testing::TestWithParam<Layout> {};

TEST_P(AReplacementFrame, HoldsItsIndexAtAFixedPlace) {
    const Layout& layout = GetParam();
    std::vector<uint8_t> row(layout.blockStart + 80);
    const uint32_t written = 0x03020100;
    memcpy(&row[layout.blockStart + 76], &written, sizeof(written));
    uint32_t read = 0;
    EXPECT_TRUE(replacement_frame::readStreamIndex(row.data(), row.size(), layout.width, layout.height, read))
        << "only the word itself need be there";
    EXPECT_EQ(read, written);
    EXPECT_FALSE(
        replacement_frame::readStreamIndex(row.data(), row.size() - 1, layout.width, layout.height, read));
    EXPECT_FALSE(replacement_frame::readStreamIndex(row.data(), 0, layout.width, layout.height, read));
    EXPECT_FALSE(replacement_frame::readStreamIndex(nullptr, row.size(), layout.width, layout.height, read));
}

INSTANTIATE_TEST_SUITE_P(Sizes, AReplacementFrame,
                         testing::Values(Layout{"fullHd", 1920, 1080, 3110400},
                                         Layout{"vga", 640, 480, 460800},
                                         Layout{"fractionTruncatedThenRoundedUp", 3, 3, 16},
                                         Layout{"nothing", 0, 0, 0},
                                         Layout{"productWrapsToZero", 65536, 65536, 0},
                                         Layout{"productWrapsToOne", 0xFFFFFFFF, 0xFFFFFFFF, 16}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(ReplacementFrame, SizeBeyondAllRowsHoldsNoIndex) {
    const std::vector<uint8_t> row(4096);
    uint32_t read = 0;
    EXPECT_FALSE(replacement_frame::readStreamIndex(row.data(), row.size(), 0xFFFFFFFF, 1, read));
    EXPECT_FALSE(replacement_frame::readStreamIndex(row.data(), row.size(), 50000, 50000, read));
}

// --- The helper
// ----------------------------------------------------------------------------------------------

class AnImgSubHelper : public testing::Test {
  protected:
    AnImgSubHelper() : service(FakeDesktopService::start()), desktop(DesktopHelperTestAccess::create()) {}
    ~AnImgSubHelper() override {
        helper.reset();
        desktop.reset();
        vel::host::clearLocalServices();
    }

    void make(int32_t maxImages = 12, bool mergeStreams = false,
              uint64_t readerUsage = AHARDWAREBUFFER_USAGE_CPU_READ_OFTEN) {
        AImageReader* reader = nullptr;
        ASSERT_EQ(AImageReader_newWithUsage(kRowBytes, 1, kFormat, readerUsage, maxImages, &reader),
                  AMEDIA_OK);
        readerProducer = desktop->getIGraphicBufferProducer(reader);
        makeWith(reader, true, mergeStreams);
    }
    void makeWith(AImageReader* reader, bool appConnected, bool mergeStreams = false) {
        helper = std::make_shared<VelImgSubHelper>(readerProducer, reader, kRowBytes, 1, kFormat, kImageWidth,
                                                   kImageHeight, appConnected, mergeStreams);
    }

    void offer(const sp<IGraphicBufferProducer>& producer) {
        service->offerSurface(ClientType::CLIENT_IMG_SUB, new Wrapper(producer));
    }
    // The application's consumer of the outbound frames, and a first connection to it.
    void offerRealQueue() {
        sp<IGraphicBufferConsumer> end;
        BufferQueue::createBufferQueue(&outbound, &end);
        consumer = new BufferItemConsumer(end, GRALLOC_USAGE_SW_READ_OFTEN, 2);
        offer(outbound);
    }
    void connect() {
        offerRealQueue();
        ASSERT_NE(helper->imgSubGetOutputFrameToFill(0), nullptr);
        helper->imgSubQueueOutputFrame(0, 0);
        takeOutbound();
        log.clear();
    }
    int64_t takeOutbound() {
        BufferItem item;
        if (consumer->acquireBuffer(&item, 0) != NO_ERROR) return -1;
        consumer->releaseBuffer(item);
        return item.mTimestamp;
    }

    // The application's side of the reader: a frame of rowBytes with the index in its block, marked by a
    // byte.
    void sendReplacement(uint32_t streamIndex, uint8_t mark = 0, uint32_t rowBytes = kRowBytes) {
        if (inbound == nullptr) {
            inbound = new H2BGraphicBufferProducer(readerProducer);
            ASSERT_EQ(inbound->connect(nullptr, NATIVE_WINDOW_API_CPU, false, &output), NO_ERROR);
            ASSERT_EQ(inbound->setMaxDequeuedBufferCount(2), NO_ERROR);
        }
        int slot = -1;
        sp<Fence> fence;
        sp<GraphicBuffer> buffer;
        ASSERT_GE(inbound->dequeueBuffer(&slot, &fence, rowBytes, 1, kFormat, GRALLOC_USAGE_SW_WRITE_OFTEN,
                                         nullptr, nullptr),
                  NO_ERROR);
        ASSERT_EQ(inbound->requestBuffer(slot, &buffer), NO_ERROR);
        void* row = nullptr;
        ASSERT_EQ(buffer->lock(GRALLOC_USAGE_SW_WRITE_OFTEN, &row), NO_ERROR);
        static_cast<uint8_t*>(row)[0] = mark;
        if (rowBytes >= kIndexOffset + 4)
            memcpy(static_cast<uint8_t*>(row) + kIndexOffset, &streamIndex, sizeof(streamIndex));
        ASSERT_EQ(buffer->unlock(), NO_ERROR);
        ASSERT_EQ(inbound->queueBuffer(slot, {0, false, HAL_DATASPACE_UNKNOWN, Rect(), 0, 0, Fence::NO_FENCE},
                                       &output),
                  NO_ERROR);
    }

    // The mark of the replacement that the HAL gets, -1 for none.
    int acquire(uint32_t streamIndex) {
        const sp<GraphicBuffer> buffer = helper->imgSubAcquireFrame(streamIndex, halImage);
        if (buffer == nullptr) return -1;
        void* row = nullptr;
        EXPECT_EQ(buffer->lock(GRALLOC_USAGE_SW_READ_OFTEN, &row), NO_ERROR);
        const int mark = *static_cast<uint8_t*>(row);
        buffer->unlock();
        return mark;
    }
    void release(uint32_t streamIndex) { helper->imgSubReleaseFrame(streamIndex, std::move(halImage)); }

    std::vector<std::string> logged() const { return log.texts(kTag); }

    LogCapture log;
    sp<FakeDesktopService> service;
    std::unique_ptr<VelChiDesktopHelper> desktop;
    sp<HGraphicBufferProducer> readerProducer;
    std::shared_ptr<VelImgSubHelper> helper;
    sp<IGraphicBufferProducer> outbound;
    sp<BufferItemConsumer> consumer;
    sp<IGraphicBufferProducer> inbound;
    IGraphicBufferProducer::QueueBufferOutput output;
    std::shared_ptr<AImage> halImage;
};

// Life.

TEST_F(AnImgSubHelper, LogsItsLifeAndClosesTheReader) {
    make();
    EXPECT_THAT(logged(), ElementsAre(StartsWith("D VelImgSubHelper: constuctor called. Line: ")));
    sendReplacement(0);
    log.clear();
    helper.reset();
    EXPECT_THAT(logged(), ElementsAre(StartsWith("D ~VelImgSubHelper: destructor called. Line: "),
                                      StartsWith("D disconnectImgSubProducer_locked: called. Line: ")));
    int slot = -1;
    sp<Fence> fence;
    EXPECT_EQ(inbound->dequeueBuffer(&slot, &fence, 1, 1, kFormat, 0, nullptr, nullptr), NO_INIT);
}

TEST_F(AnImgSubHelper, ImagesOfTheHalOutliveIt) {
    make();
    connect();
    sendReplacement(0, 42);
    std::shared_ptr<AImage> image;
    const sp<GraphicBuffer> buffer = helper->imgSubAcquireFrame(0, image);
    ASSERT_NE(buffer, nullptr);
    helper.reset();
    void* row = nullptr;
    ASSERT_EQ(buffer->lock(GRALLOC_USAGE_SW_READ_OFTEN, &row), NO_ERROR);
    EXPECT_EQ(*static_cast<uint8_t*>(row), 42);
    buffer->unlock();
    image.reset();
}

// Outbound.

TEST_F(AnImgSubHelper, ReadersOwnSurfaceIsNoSurfaceOfTheApplication) {
    make();
    service->offerSurface(ClientType::CLIENT_IMG_SUB, readerProducer);
    log.clear();
    EXPECT_EQ(helper->imgSubGetOutputFrameToFill(0), nullptr);
    EXPECT_THAT(
        logged(),
        ElementsAre(StartsWith("D connectImgSubProducer_locked: called. Line: "),
                    StartsWith("D connectImgSubProducer_locked: No app surface yet provided. Line: ")));
}

TEST_F(AnImgSubHelper, WithoutASurfaceAsksAgainForEachFrame) {
    make();
    log.clear();
    EXPECT_EQ(helper->imgSubGetOutputFrameToFill(0), nullptr);
    EXPECT_EQ(helper->imgSubGetOutputFrameToFill(1), nullptr);
    EXPECT_EQ(service->calls(FakeDesktopService::Operation::GET_SURFACE).size(), 2u);
    EXPECT_EQ(logged().size(), 2u) << "each attempt is logged and nothing else";
    offerRealQueue();
    EXPECT_NE(helper->imgSubGetOutputFrameToFill(0), nullptr) << "connects and lends in one call";
}

TEST_F(AnImgSubHelper, WithoutAReaderProducerNeverConnects) {
    makeWith(nullptr, true);
    offerRealQueue();
    EXPECT_EQ(helper->imgSubGetOutputFrameToFill(0), nullptr);
    EXPECT_THAT(service->calls(FakeDesktopService::Operation::GET_SURFACE), IsEmpty());
}

TEST_F(AnImgSubHelper, PassesFramesOfSeveralStreams) {
    make();
    offerRealQueue();
    for (int64_t round = 0; round < 10; round++) {
        const sp<GraphicBuffer> low = helper->imgSubGetOutputFrameToFill(0);
        const sp<GraphicBuffer> high = helper->imgSubGetOutputFrameToFill(3);
        ASSERT_NE(low, nullptr);
        ASSERT_NE(high, nullptr);
        EXPECT_NE(low, high);
        EXPECT_EQ(low->getWidth(), kRowBytes);
        helper->imgSubQueueOutputFrame(3, 100 + round);
        helper->imgSubQueueOutputFrame(0, round);
        EXPECT_EQ(takeOutbound(), 100 + round);
        EXPECT_EQ(takeOutbound(), round);
    }
    EXPECT_EQ(log.count("Got re-alloc request for imgsub slot"), 2u);
}

class AScriptedImgSubHelper : public AnImgSubHelper {
  protected:
    AScriptedImgSubHelper() {
        make();
        offer(script);
        log.clear();
        lend(0, 0);
    }
    sp<GraphicBuffer> lend(uint32_t streamIndex, int slot) {
        script->onDequeue({1, slot});
        return helper->imgSubGetOutputFrameToFill(streamIndex);
    }
    void forget() {
        script->forgetCalls();
        log.clear();
    }
    const sp<ScriptedProducer> script{new ScriptedProducer};
};

TEST_F(AScriptedImgSubHelper, ConnectsAsTheCameraAndAllowsSixBuffers) {
    EXPECT_THAT(script->calls(), ElementsAre("connect api 4", "setMax 6", kDequeue, "request 0"));
    EXPECT_THAT(logged(),
                ElementsAre(StartsWith("D connectImgSubProducer_locked: called. Line: "),
                            StartsWith("D mImgSubProducer: 0x"), "D Got re-alloc request for imgsub slot 0"));
}

TEST_F(AScriptedImgSubHelper, RefusesSlotsOutsideTheCacheAndFailedRequests) {
    for (int slot : {7, 64, -1, INT32_MIN}) {
        forget();
        EXPECT_EQ(lend(0, slot), nullptr);
        EXPECT_THAT(script->calls(), ElementsAre(kDequeue));
        EXPECT_THAT(logged(), ElementsAre("E request imgsub dequeue failed, max slots reached"));
    }
    forget();
    script->onRequest({NO_INIT, nullptr});
    EXPECT_EQ(lend(0, 5), nullptr);
    EXPECT_THAT(logged(), ElementsAre("E request imgsub buffer failed"));
    EXPECT_EQ(Access::lentSlot(*helper, 0), 0) << "what was lent stays lent";
    forget();
    script->onDequeue({0, 64});
    EXPECT_EQ(helper->imgSubGetOutputFrameToFill(0), nullptr);
    EXPECT_EQ(Access::lentSlot(*helper, 0), 64) << "lent without a buffer";
}

TEST_F(AScriptedImgSubHelper, FailedQueueIsConnectedAnewByTheNextCall) {
    for (int status : {2, 3, -19, -32}) {
        forget();
        script->onDequeue({status, 0});
        EXPECT_EQ(helper->imgSubGetOutputFrameToFill(0), nullptr);
        EXPECT_THAT(script->calls(), ElementsAre(kDequeue, "disconnect api 4 mode 0"));
        EXPECT_THAT(logged(), ElementsAre("E request imgsub dequeue failed with " + std::to_string(status),
                                          StartsWith("D disconnectImgSubProducer_locked: called. Line: ")));
        forget();
        EXPECT_NE(lend(0, 0), nullptr);
        EXPECT_THAT(script->calls(), ElementsAre("connect api 4", "setMax 6", kDequeue, "request 0"));
    }
    forget();
    script->onDequeue({-1, 0});
    script->onDisconnect(-22);
    helper->imgSubGetOutputFrameToFill(0);
    EXPECT_EQ(log.count("Unable to disconnect imgsub producer, -22"), 1u);
}

TEST_F(AScriptedImgSubHelper, LateFenceCancelsTheBuffer) {
    forget();
    SignalFence late;
    script->onDequeue({0, 0, late.fence()});
    EXPECT_EQ(helper->imgSubGetOutputFrameToFill(1), nullptr);
    EXPECT_THAT(script->calls(), ElementsAre(kDequeue, "cancel 0"));
    EXPECT_THAT(logged(), ElementsAre("W imgsub Fence hasn't been signaled yet"));
    EXPECT_EQ(Access::lentSlot(*helper, 1), -1);
}

TEST_F(AScriptedImgSubHelper, QueuesEachStreamsOwnSlotWithEveryValueInItsPlace) {
    lend(1, 4);
    forget();
    helper->imgSubQueueOutputFrame(2, 5);
    EXPECT_THAT(script->calls(), IsEmpty()) << "nothing is lent for stream 2";
    helper->imgSubQueueOutputFrame(1, -7);
    helper->imgSubQueueOutputFrame(1, -7);
    script->onQueue(BAD_VALUE);
    helper->imgSubQueueOutputFrame(0, 1);
    helper->imgSubQueueOutputFrame(0, 1);
    EXPECT_THAT(script->calls(), ElementsAre("queue 4", "queue 0"));
    EXPECT_THAT(logged(), ElementsAre("E queue buffer failed imgsub"));
    const auto queued = script->queued();
    const IGraphicBufferProducer::QueueBufferInput& input = queued[0].input;
    EXPECT_EQ(input.timestamp, -7);
    EXPECT_EQ(input.dataSpace, 0x20000);
    EXPECT_EQ(input.crop, Rect(0, 0, kRowBytes, 1));
    EXPECT_EQ(input.scalingMode, 1);
    EXPECT_EQ(input.transform, 0u);
}

TEST_F(AScriptedImgSubHelper, SlotLentBeforeADisconnectionIsQueuedAfterTheNext) {
    lend(1, 4);
    script->onDequeue({-1, 0});
    helper->imgSubGetOutputFrameToFill(0);
    forget();
    helper->imgSubQueueOutputFrame(1, 1);
    EXPECT_THAT(script->calls(), IsEmpty()) << "no queue to give it to";
    lend(0, 0);
    forget();
    helper->imgSubQueueOutputFrame(1, 1);
    EXPECT_THAT(script->calls(), ElementsAre("queue 4"));
}

TEST_F(AScriptedImgSubHelper, CancelResetsTheQueueAndItsOwnStreamOnly) {
    lend(1, 4);
    forget();
    helper->cancelImgSubFrames(1);
    EXPECT_THAT(script->calls(), ElementsAre("setMax 0", "setMax 6"));
    EXPECT_THAT(logged(), ElementsAre(StartsWith("D cancelImgSubFrames: called. Line: ")));
    EXPECT_EQ(Access::lentSlot(*helper, 1), -1);
    EXPECT_EQ(Access::lentSlot(*helper, 0), 0);
}

TEST_F(AScriptedImgSubHelper, WithoutTheApplicationDoesNothing) {
    helper->setImgSubAppConnected(false);
    sendReplacement(0, 1);
    forget();
    EXPECT_EQ(helper->imgSubGetOutputFrameToFill(2), nullptr);
    EXPECT_EQ(Access::maxStreamIndex(*helper), 2u) << "the stream is noted all the same";
    helper->imgSubQueueOutputFrame(0, 1);
    helper->cancelImgSubFrames(0);
    EXPECT_EQ(acquire(0), -1);
    EXPECT_THAT(script->calls(), IsEmpty());
    EXPECT_THAT(logged(), ElementsAre(StartsWith("D cancelImgSubFrames: called. Line: ")));
    helper->setImgSubAppConnected(true);
    helper->imgSubQueueOutputFrame(0, 1);
    EXPECT_THAT(script->calls(), ElementsAre("queue 0"));
}

TEST_F(AScriptedImgSubHelper, StreamsAboveThreeAreRefused) {
    forget();
    for (uint32_t streamIndex : {4u, 9u, 0x80000000u, 0xFFFFFFFFu}) {
        EXPECT_EQ(helper->imgSubGetOutputFrameToFill(streamIndex), nullptr);
        helper->imgSubQueueOutputFrame(streamIndex, 1);
        helper->cancelImgSubFrames(streamIndex);
        EXPECT_EQ(acquire(streamIndex), -1);
    }
    EXPECT_THAT(script->calls(), IsEmpty());
    EXPECT_EQ(Access::maxStreamIndex(*helper), 0u);
    EXPECT_EQ(logged().size(), 4u) << "the four cancels";
}

// Replacements.

TEST_F(AnImgSubHelper, HandsOutTheNewestReplacementOfTheStream) {
    make();
    connect();
    sendReplacement(0, 1);
    sendReplacement(0, 2);
    EXPECT_EQ(acquire(0), 2);
    EXPECT_EQ(halImage, Access::held(*helper, 0));
    release(0);
    EXPECT_EQ(halImage, nullptr);
    EXPECT_NE(Access::held(*helper, 0), nullptr) << "the helper keeps it too";
    sendReplacement(0, 3);
    EXPECT_EQ(acquire(0), 3);
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(AnImgSubHelper, FilesReplacementsOfOtherStreamsWhileItWaits) {
    make();
    connect();
    sendReplacement(1, 11);
    sendReplacement(3, 33);
    EXPECT_EQ(acquire(0), -1);
    EXPECT_THAT(logged(), ElementsAre(HasSubstr("D Timed out waiting to retrieve replacement frame: "),
                                      "E failed to retrieve replacement frame"));
    log.clear();
    EXPECT_EQ(acquire(3), 33);
    EXPECT_EQ(acquire(1), 11);
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(AnImgSubHelper, HandsTheLastReplacementOutAgainWhenNoNewOneComes) {
    make();
    connect();
    sendReplacement(2, 5);
    EXPECT_EQ(acquire(2), 5);
    release(2);
    EXPECT_EQ(acquire(2), 5);
    const std::vector<std::string> lines = logged();
    ASSERT_EQ(lines.size(), 1u);
    int elapsedMs = 0;
    ASSERT_EQ(
        sscanf(lines[0].c_str(), "D Timed out waiting to retrieve replacement frame: %d ms", &elapsedMs), 1);
    EXPECT_GE(elapsedMs, 101);
}

TEST_F(AnImgSubHelper, TakesAReplacementThatComesDuringTheWait) {
    make(12);
    connect();
    sendReplacement(0, 1);
    ASSERT_EQ(acquire(0), 1);
    std::atomic<bool> stop{false};
    // A frame at a time until it was seen, since a loaded machine may send the first one late.
    std::thread application([&] {
        while (!stop) {
            sendReplacement(0, 2);
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    });
    EXPECT_TRUE([&] {
        for (int attempts = 0; attempts < 300; attempts++) {
            if (acquire(0) == 2) return true;
        }
        return false;
    }());
    stop = true;
    application.join();
}

TEST_F(AnImgSubHelper, WithoutAConnectionNeverWaits) {
    make();
    sendReplacement(0, 1);
    log.clear();
    EXPECT_EQ(acquire(0), -1);
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(AnImgSubHelper, WithoutAReaderSaysSo) {
    make();
    makeWith(nullptr, true);
    offerRealQueue();
    ASSERT_NE(helper->imgSubGetOutputFrameToFill(0), nullptr);
    log.clear();
    EXPECT_EQ(acquire(0), -1);
    EXPECT_THAT(logged(), ElementsAre("E imgSubAcquireFrame failed: invalid AImageReader"));
    helper->cancelImgSubFrames(0);
}

TEST_F(AnImgSubHelper, ReaderErrorEndsTheWaitAtOnceWithTheLastReplacement) {
    make(1);
    connect();
    sendReplacement(0, 7);
    ASSERT_EQ(acquire(0), 7);
    EXPECT_EQ(acquire(0), 7) << "the only place is taken";
    EXPECT_EQ(acquire(1), -1);
    EXPECT_THAT(logged(), ElementsAre("E failed to retrieve replacement frame")) << "nothing timed out";
}

TEST_F(AnImgSubHelper, FailureLeavesTheHalsImageAlone) {
    make();
    connect();
    sendReplacement(0, 7);
    ASSERT_EQ(acquire(0), 7);
    const std::shared_ptr<AImage> before = halImage;
    EXPECT_EQ(acquire(1), -1);
    EXPECT_EQ(halImage, before);
}

TEST_F(AnImgSubHelper, HostileFramesGoBackToTheReader) {
    make(2);
    connect();
    for (uint32_t streamIndex : {4u, 255u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        sendReplacement(streamIndex);
        sendReplacement(0, 0, 16);                // no header at all
        sendReplacement(0, 0, kIndexOffset + 3);  // a header cut within the index
        EXPECT_EQ(acquire(0), -1);
    }
    sendReplacement(0, 9);
    EXPECT_EQ(acquire(0), 9) << "no place of the reader was lost";
}

TEST_F(AnImgSubHelper, FrameThatReachesJustToItsIndexIsTaken) {
    make();
    connect();
    sendReplacement(1, 3, kIndexOffset + 4);
    EXPECT_EQ(acquire(1), 3);
    sendReplacement(1, 4, 4 * kRowBytes);
    EXPECT_EQ(acquire(1), 4) << "the index is counted from the start of the row";
}

TEST_F(AnImgSubHelper, UnreadableImagesStayAcquired) {
    const DeliberateLeak imagesAreNeverDeleted;
    make(2, false, AHARDWAREBUFFER_USAGE_CPU_WRITE_OFTEN);
    connect();
    sendReplacement(0);
    sendReplacement(0);
    EXPECT_EQ(acquire(0), -1);
    EXPECT_THAT(logged(), ElementsAre("E failed to retrieve replacement frame"))
        << "both places are taken, so that the wait ends at once";
}

TEST_F(AnImgSubHelper, CancelForgetsEveryReplacement) {
    make();
    connect();
    sendReplacement(1, 11);
    EXPECT_EQ(acquire(1), 11);
    release(1);
    sendReplacement(2, 22);
    EXPECT_EQ(acquire(0), -1);  // files stream 2
    sendReplacement(0, 33);
    sendReplacement(0, 34);  // both still in the reader
    helper->cancelImgSubFrames(0);
    for (uint32_t streamIndex = 0; streamIndex < 4; streamIndex++) {
        EXPECT_EQ(Access::received(*helper, streamIndex), nullptr);
        EXPECT_EQ(Access::held(*helper, streamIndex), nullptr);
    }
    EXPECT_EQ(acquire(0), -1) << "what waited in the reader is gone too";
    sendReplacement(0, 44);
    EXPECT_EQ(acquire(0), 44);
}

TEST_F(AnImgSubHelper, CancelsLeaveTheReaderItsPlaces) {
    make(2);
    connect();
    for (uint8_t i = 0; i < 6; i++) {
        sendReplacement(0, i);
        helper->cancelImgSubFrames(0);
    }
    sendReplacement(0, 77);
    EXPECT_EQ(acquire(0), 77);
}

// Merged streams.

TEST_F(AnImgSubHelper, MergedLowerStreamSharesTheHighestStreamsReplacement) {
    make(12, true);
    connect();
    ASSERT_NE(helper->imgSubGetOutputFrameToFill(2), nullptr);
    sendReplacement(2, 22);
    EXPECT_EQ(acquire(2), 22) << "the highest stream waits for its own";
    log.clear();
    helper->setImgSubAppConnected(false);
    EXPECT_EQ(acquire(0), 22) << "at once, connected or not";
    EXPECT_EQ(acquire(0), 22) << "and again";
    EXPECT_EQ(acquire(1), 22);
    EXPECT_EQ(Access::held(*helper, 0), Access::received(*helper, 2));
    EXPECT_EQ(acquire(2), -1);
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(AnImgSubHelper, MergedLowerStreamWaitsForItsOwnWhileTheHighestHasNone) {
    make(12, true);
    connect();
    ASSERT_NE(helper->imgSubGetOutputFrameToFill(2), nullptr);
    sendReplacement(0, 5);
    EXPECT_EQ(acquire(0), 5);
    EXPECT_EQ(acquire(3), -1) << "above the highest there is nothing to share";
}

TEST_F(AnImgSubHelper, SeparateStreamsShareNothing) {
    make(12, false);
    connect();
    ASSERT_NE(helper->imgSubGetOutputFrameToFill(2), nullptr);
    sendReplacement(2, 22);
    EXPECT_EQ(acquire(2), 22);
    EXPECT_EQ(acquire(0), -1);
}

// Threads.

TEST_F(AnImgSubHelper, StreamsRunBesideEachOther) {
    constexpr int kFrames = 60;
    make(20);
    connect();
    std::atomic<bool> stop{false};
    std::thread application([&] {
        for (uint32_t frame = 0; !stop; frame++) {
            while (takeOutbound() >= 0) {
            }
            // Bounded by what the reader takes: a full queue would hold this thread up for good.
            if (frame % 2 == 0) sendReplacement(frame / 2 % 4, static_cast<uint8_t>(frame));
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    std::vector<std::thread> streams;
    std::atomic<int> replaced{0};
    for (uint32_t streamIndex = 0; streamIndex < 3; streamIndex++) {
        streams.emplace_back([&, streamIndex] {
            for (int frame = 0; frame < kFrames; frame++) {
                if (helper->imgSubGetOutputFrameToFill(streamIndex) != nullptr)
                    helper->imgSubQueueOutputFrame(streamIndex, frame);
                std::shared_ptr<AImage> image;
                if (helper->imgSubAcquireFrame(streamIndex, image) != nullptr) replaced++;
                helper->imgSubReleaseFrame(streamIndex, image);
                if (streamIndex == 2 && frame % 20 == 19) helper->cancelImgSubFrames(2);
                if (streamIndex == 1 && frame % 10 == 9) {
                    helper->setImgSubAppConnected(false);
                    helper->setImgSubAppConnected(true);
                }
            }
        });
    }
    for (std::thread& stream : streams)
        stream.join();
    stop = true;
    application.join();
    EXPECT_GT(replaced, 0);
}

}  // namespace
