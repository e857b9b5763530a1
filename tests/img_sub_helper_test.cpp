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
#include "WaitUntil.h"

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

// What this path shares with the plain frame path is in producer_slots_test.cpp.

TEST(ReplacementFrame, HoldsItsIndexAtAFixedPlace) {
    const struct {
        uint32_t width, height, blockStart;
    } layouts[] = {{1920, 1080, 3110400},
                   {3, 3, 16},         // the fraction truncated, then rounded up
                   {65536, 65536, 0},  // the product wraps
                   {0xFFFFFFFF, 0xFFFFFFFF, 16}};
    for (const auto& layout : layouts) {
        std::vector<uint8_t> row(layout.blockStart + 80);  // the word itself is the last that need be there
        const uint32_t written = 0x03020100;
        memcpy(&row[layout.blockStart + 76], &written, sizeof(written));
        const auto read = [&](const uint8_t* start, size_t byteCount) {
            uint32_t index = 0;
            return replacement_frame::readStreamIndex(start, byteCount, layout.width, layout.height, index)
                       ? index
                       : 0;
        };
        EXPECT_EQ(read(row.data(), row.size()), written) << layout.width;
        EXPECT_EQ(read(row.data(), row.size() - 1), 0u) << layout.width;
        EXPECT_EQ(read(row.data(), 0), 0u) << layout.width;
        EXPECT_EQ(read(nullptr, row.size()), 0u) << layout.width;
    }
    const std::vector<uint8_t> row(4096);
    uint32_t index = 0;
    EXPECT_FALSE(replacement_frame::readStreamIndex(row.data(), row.size(), 0xFFFFFFFF, 1, index));
}

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

    static int markOf(const sp<GraphicBuffer>& buffer) {
        void* row = nullptr;
        EXPECT_EQ(buffer->lock(GRALLOC_USAGE_SW_READ_OFTEN, &row), NO_ERROR);
        const int mark = *static_cast<uint8_t*>(row);
        buffer->unlock();
        return mark;
    }
    // The mark of the replacement that the HAL gets, -1 for none.
    int acquire(uint32_t streamIndex) {
        const sp<GraphicBuffer> buffer = helper->imgSubAcquireFrame(streamIndex, halImage);
        return buffer == nullptr ? -1 : markOf(buffer);
    }

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

TEST_F(AnImgSubHelper, ClosesTheReaderAtItsEndButLeavesTheHalItsImage) {
    make();
    EXPECT_THAT(logged(), ElementsAre(StartsWith("D VelImgSubHelper: constuctor called. Line: ")));
    connect();
    sendReplacement(0, 42);
    const sp<GraphicBuffer> buffer = helper->imgSubAcquireFrame(0, halImage);
    ASSERT_NE(buffer, nullptr);
    helper.reset();
    EXPECT_THAT(logged(), ElementsAre(StartsWith("D ~VelImgSubHelper: destructor called. Line: "),
                                      StartsWith("D disconnectImgSubProducer_locked: called. Line: ")));
    int slot = -1;
    sp<Fence> fence;
    EXPECT_EQ(inbound->dequeueBuffer(&slot, &fence, 1, 1, kFormat, 0, nullptr, nullptr), NO_INIT);
    EXPECT_EQ(markOf(buffer), 42);
    halImage.reset();
}

TEST_F(AnImgSubHelper, WithoutASurfaceOfTheApplicationAsksAgainForEachFrame) {
    make();
    log.clear();
    EXPECT_EQ(helper->imgSubGetOutputFrameToFill(0), nullptr);
    service->offerSurface(ClientType::CLIENT_IMG_SUB, readerProducer);
    EXPECT_EQ(helper->imgSubGetOutputFrameToFill(1), nullptr);
    const auto asks = StartsWith("D connectImgSubProducer_locked: called. Line: ");
    EXPECT_THAT(logged(), ElementsAre(asks, asks, HasSubstr("_locked: No app surface yet provided. Line: ")));
    offerRealQueue();
    EXPECT_NE(helper->imgSubGetOutputFrameToFill(0), nullptr) << "connects and lends in one call";
}

TEST_F(AnImgSubHelper, WithoutAReaderOrItsProducerReplacesNothing) {
    makeWith(nullptr, true);
    offerRealQueue();
    EXPECT_EQ(helper->imgSubGetOutputFrameToFill(0), nullptr);
    EXPECT_THAT(service->calls(FakeDesktopService::Operation::GET_SURFACE), IsEmpty());
    make();
    makeWith(nullptr, true);
    ASSERT_NE(helper->imgSubGetOutputFrameToFill(0), nullptr);
    log.clear();
    EXPECT_EQ(acquire(0), -1);
    EXPECT_THAT(logged(), ElementsAre("E imgSubAcquireFrame failed: invalid AImageReader"));
    helper->cancelImgSubFrames(0);
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

TEST_F(AScriptedImgSubHelper, QueuesEachStreamsOwnSlotEvenAfterAReconnection) {
    lend(1, 4);
    forget();
    helper->imgSubQueueOutputFrame(2, 5);
    EXPECT_THAT(script->calls(), IsEmpty()) << "nothing is lent for stream 2";
    helper->imgSubQueueOutputFrame(0, 1);
    EXPECT_THAT(script->calls(), ElementsAre("queue 0"));
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

TEST_F(AScriptedImgSubHelper, BlockedDequeueLetsTheApplicationLeave) {
    script->whileDequeueing([&] { helper->setImgSubAppConnected(false); });
    EXPECT_NE(lend(1, 1), nullptr);
    EXPECT_EQ(lend(1, 1), nullptr);
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

TEST_F(AnImgSubHelper, HandsOutTheNewestReplacementOfTheStream) {
    make();
    connect();
    sendReplacement(0, 1);
    sendReplacement(0, 2);
    EXPECT_EQ(acquire(0), 2);
    EXPECT_EQ(halImage, Access::held(*helper, 0));
    helper->imgSubReleaseFrame(0, std::move(halImage));
    EXPECT_NE(Access::held(*helper, 0), nullptr) << "the helper keeps it too";
    sendReplacement(0, 3);
    EXPECT_EQ(acquire(0), 3);
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(AnImgSubHelper, FilesOtherStreamsWhileItWaitsAndHandsTheLastOutAgain) {
    make();
    sendReplacement(1, 11);
    log.clear();
    EXPECT_EQ(acquire(1), -1) << "never waits without a connection";
    EXPECT_THAT(logged(), IsEmpty());
    connect();
    sendReplacement(3, 33);
    EXPECT_EQ(acquire(3), 33);
    const std::shared_ptr<AImage> before = halImage;
    EXPECT_EQ(acquire(0), -1);
    EXPECT_EQ(halImage, before) << "failure leaves the HAL's image alone";
    const auto timeout = HasSubstr("D Timed out waiting to retrieve replacement frame: ");
    EXPECT_THAT(logged(), ElementsAre(timeout, "E failed to retrieve replacement frame"));
    EXPECT_EQ(acquire(1), 11);
    log.clear();
    EXPECT_EQ(acquire(1), 11);
    ASSERT_THAT(logged(), ElementsAre(timeout));
    EXPECT_GE(std::stoi(logged()[0].substr(logged()[0].find(": ") + 2)), 101);
}

TEST_F(AnImgSubHelper, TakesAReplacementThatComesDuringTheWait) {
    make();
    connect();
    // A loaded machine may send a frame too late for its wait, hence several attempts.
    uint8_t mark = 0;
    EXPECT_TRUE(waitUntil([&] {
        acquire(0);
        mark++;
        std::thread application([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            sendReplacement(0, mark);
        });
        const int acquired = acquire(0);
        application.join();
        return acquired == mark;
    }));
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

TEST_F(AnImgSubHelper, HostileAndCancelledFramesGoBackToTheReader) {
    make(1);
    connect();
    for (uint32_t streamIndex : {4u, 255u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        sendReplacement(streamIndex);
        sendReplacement(0, 0, 16);                // no header at all
        sendReplacement(0, 0, kIndexOffset + 3);  // a header cut within the index
        EXPECT_EQ(acquire(0), -1);
    }
    EXPECT_EQ(log.count("Timed out"), 4u) << "the reader kept its only place";
    sendReplacement(0, 8);
    helper->cancelImgSubFrames(0);
    sendReplacement(0, 9, kIndexOffset + 4);
    EXPECT_EQ(acquire(0), 9) << "the row reaches just to its index";
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
    sendReplacement(2, 22);
    EXPECT_EQ(acquire(1), 11);
    sendReplacement(0, 33);
    sendReplacement(0, 34);  // both still in the reader
    helper->cancelImgSubFrames(0);
    for (uint32_t streamIndex = 0; streamIndex < 4; streamIndex++) {
        EXPECT_EQ(Access::received(*helper, streamIndex), nullptr);
        EXPECT_EQ(Access::held(*helper, streamIndex), nullptr);
    }
    EXPECT_EQ(acquire(0), -1) << "what waited in the reader is gone too";
}

TEST_F(AnImgSubHelper, OnlyMergedLowerStreamsShareTheHighestStreamsReplacement) {
    for (bool merged : {true, false}) {
        SCOPED_TRACE(merged);
        inbound = nullptr;
        make(12, merged);
        connect();
        ASSERT_NE(helper->imgSubGetOutputFrameToFill(2), nullptr);
        sendReplacement(0, 5);
        EXPECT_EQ(acquire(0), 5) << "its own while the highest has none";
        sendReplacement(2, 22);
        EXPECT_EQ(acquire(2), 22) << "the highest stream waits for its own";
        EXPECT_EQ(acquire(3), -1) << "above the highest there is nothing to share";
        helper->setImgSubAppConnected(false);
        log.clear();
        for (uint32_t lower : {0, 0, 1})
            EXPECT_EQ(acquire(lower), merged ? 22 : -1) << "at once, connected or not";
        EXPECT_EQ(Access::held(*helper, 0) == Access::received(*helper, 2), merged);
        EXPECT_EQ(acquire(2), -1);
        EXPECT_THAT(logged(), IsEmpty());
    }
}

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
            if (frame % 2 == 0) sendReplacement(frame / 2 % 4);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    std::vector<std::thread> streams;
    std::atomic<int> replaced{0};
    for (uint32_t streamIndex = 0; streamIndex < 4; streamIndex++) {
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
