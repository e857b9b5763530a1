// The substituted images. The steps that their outbound frames share with those for the application are in
// producer_slots_test.cpp.
#include <gmock/gmock.h>
#include <media/NdkImageReader.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "DeliberateLeak.h"
#include "HelperFixture.h"
#include "ImgSubHelperTestAccess.h"
#include "NextDefinition.h"
#include "ProducerSlots.h"
#include "ReplacementFrame.h"
#include "ScriptedProducer.h"
#include "SignalFence.h"
#include "VelImgSubHelper.h"
#include "WaitsForLock.h"

#include <gui/bufferqueue/1.0/H2BGraphicBufferProducer.h>
#include <gui/bufferqueue/1.0/WGraphicBufferProducer.h>

using namespace android;
using Access = ImgSubHelperTestAccess;
using hardware::graphics::bufferqueue::V1_0::utils::H2BGraphicBufferProducer;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using Wrapper = TWGraphicBufferProducer<HGraphicBufferProducer>;

namespace {

// The time that a test sets, by the clock.
using Time = std::map<clockid_t, int64_t>;  // ms

const Time* gTime = nullptr;          // null for the machine's
std::function<void()> gDuringPause;   // in place of the pause
std::function<void()> gDuringDelete;  // of the reader
bool gImagesHaveBuffers = true;

}  // namespace

// In place of the libraries' own.
extern "C" int clock_gettime(clockid_t clock, timespec* now) {
    if (gTime == nullptr) return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    const long long ms = gTime->at(clock);
    *now = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000 * 1000000)};
    return 0;
}

extern "C" int usleep(useconds_t length) {
    if (!gDuringPause) return nextDefinition<decltype(usleep)>(__func__)(length);
    gDuringPause();
    return 0;
}

extern "C" void AImageReader_delete(AImageReader* reader) {
    if (gDuringDelete) gDuringDelete();
    nextDefinition<decltype(AImageReader_delete)>(__func__)(reader);
}

extern "C" media_status_t AImage_getHardwareBuffer(const AImage* image, AHardwareBuffer** buffer) {
    if (!gImagesHaveBuffers) return AMEDIA_ERROR_INVALID_OBJECT;
    return nextDefinition<decltype(AImage_getHardwareBuffer)>(__func__)(image, buffer);
}

namespace {

constexpr int32_t kFormat = AIMAGE_FORMAT_RAW_PRIVATE;
constexpr uint32_t kImageWidth = 16;
constexpr uint32_t kImageHeight = 8;
constexpr uint32_t kRowBytes = 288;     // 96 + 128 pixels at 1.5 bytes
constexpr uint32_t kIndexOffset = 268;  // 76 into the last 96 bytes
constexpr producer_slots::Log kSilent = {[] {}, [] {}, [](int) {},     [](status_t) {},
                                         [] {}, [] {}, [](status_t) {}};

TEST(ReplacementFrame, IsSizedWithASignedProductAndHoldsItsIndexAtAFixedPlace) {
    const struct {
        int32_t width, height;
        uint32_t rowBytes;
        bool isReadable;
    } rows[] = {{1920, 1080, 3110496, true},
                {0, 5, 96, true},
                {3, 3, 112, true},         // the fraction truncated, then rounded up
                {11, 1, 112, true},        // which is not the same as a fraction rounded
                {65536, 65536, 96, true},  // the product wraps to 0
                {-1, -1, 112, true},       // to 1
                {50000, 50000, 0, false},  // and to a negative number
                {-1, 1, 96, false},
                {-1000, 1, 0, false},
                {-1431655765, 1, 0, false},  // whose bytes are just above 32 bits when unsigned
                {INT32_MAX, 1, 3221225568, false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.width);
        EXPECT_EQ(replacement_frame::rowBytes(row.width, row.height), row.rowBytes);
        // The index is the last that need be there.
        std::vector<uint8_t> bytes(row.isReadable ? row.rowBytes - 16 : 4096);
        const uint32_t written = 0x03020100;
        memcpy(&bytes[bytes.size() - sizeof(written)], &written, sizeof(written));
        uint32_t index = 0;
        const auto read = [&](const uint8_t* start, size_t byteCount) {
            return replacement_frame::readStreamIndex(start, byteCount, row.width, row.height, index);
        };
        EXPECT_FALSE(read(bytes.data(), bytes.size() - 1));
        EXPECT_FALSE(read(bytes.data(), 0));
        EXPECT_FALSE(read(nullptr, bytes.size()));
        EXPECT_EQ(read(bytes.data(), bytes.size()), row.isReadable);
        EXPECT_EQ(index, row.isReadable ? written : 0);
    }
}

class AnImgSubHelper : public ConnectedHelperFixture {
  protected:
    void make(int32_t maxImages = 12, bool mergeStreams = false,
              uint64_t readerUsage = AHARDWAREBUFFER_USAGE_CPU_READ_OFTEN) {
        AImageReader* reader = nullptr;
        ASSERT_EQ(AImageReader_newWithUsage(kRowBytes, 1, kFormat, readerUsage, maxImages, &reader),
                  AMEDIA_OK);
        readerProducer = helper->getIGraphicBufferProducer(reader);
        inbound = new H2BGraphicBufferProducer(readerProducer);
        producer_slots::connect(*inbound);
        makeWith(reader, mergeStreams);
    }
    void makeWith(AImageReader* reader, bool mergeStreams = false) {
        imgSub = std::make_shared<VelImgSubHelper>(readerProducer, reader, kRowBytes, 1, kFormat, kImageWidth,
                                                   kImageHeight, true, mergeStreams);
    }
    // Connects to the application's queue, which answers as told.
    void connect() {
        service->offerSurface(ClientType::CLIENT_IMG_SUB, new Wrapper(script));
        ASSERT_NE(lend(0, 0), nullptr) << "connects and lends in one call";
        forget();
    }
    sp<GraphicBuffer> lend(uint32_t streamIndex, int slot) {
        script->onDequeue({IGraphicBufferProducer::BUFFER_NEEDS_REALLOCATION, slot});
        return imgSub->imgSubGetOutputFrameToFill(streamIndex);
    }
    void forget() {
        script->forgetCalls();
        log.clear();
    }

    // The application's side of the reader: a frame of rowBytes with the index in its block, marked by a
    // byte.
    void sendReplacement(uint32_t streamIndex, uint8_t mark = 0, uint32_t rowBytes = kRowBytes) {
        int32_t slot = -1;
        sp<GraphicBuffer> buffer;
        const producer_slots::BufferShape shape = {rowBytes, 1, kFormat, GRALLOC_USAGE_SW_WRITE_OFTEN};
        ASSERT_EQ(producer_slots::dequeue(*inbound, shape, inboundBuffers, kSilent, slot, buffer),
                  producer_slots::Dequeued::LENT);
        void* row = nullptr;
        ASSERT_EQ(buffer->lock(GRALLOC_USAGE_SW_WRITE_OFTEN, &row), NO_ERROR);
        static_cast<uint8_t*>(row)[0] = mark;
        if (rowBytes >= kIndexOffset + 4)
            memcpy(static_cast<uint8_t*>(row) + kIndexOffset, &streamIndex, sizeof(streamIndex));
        ASSERT_EQ(buffer->unlock(), NO_ERROR);
        producer_slots::queue(inbound, slot, rowBytes, 1, 0, kSilent);
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
        const sp<GraphicBuffer> buffer = imgSub->imgSubAcquireFrame(streamIndex, halImage);
        return buffer == nullptr ? -1 : markOf(buffer);
    }
    std::vector<std::string> logged() const { return log.texts("VelImgSubHelper"); }

    const sp<ScriptedProducer> script{new ScriptedProducer};
    sp<HGraphicBufferProducer> readerProducer;
    sp<IGraphicBufferProducer> inbound;
    producer_slots::CachedBuffers inboundBuffers;
    std::shared_ptr<VelImgSubHelper> imgSub;
    std::shared_ptr<AImage> halImage;
};

class AConnectedImgSubHelper : public AnImgSubHelper {
  protected:
    AConnectedImgSubHelper() {
        make();
        connect();
    }
};

TEST_F(AnImgSubHelper, ClosesTheReaderAtItsEndButLeavesTheHalItsImage) {
    make();
    EXPECT_THAT(logged(), ElementsAre(StartsWith("D VelImgSubHelper: constuctor called. Line: ")));
    connect();
    sendReplacement(0, 42);
    const sp<GraphicBuffer> buffer = imgSub->imgSubAcquireFrame(0, halImage);
    ASSERT_NE(buffer, nullptr);
    imgSub.reset();
    EXPECT_THAT(logged(), ElementsAre(StartsWith("D ~VelImgSubHelper: destructor called. Line: "),
                                      StartsWith("D disconnectImgSubProducer_locked: called. Line: ")));
    EXPECT_THAT(script->calls(), ElementsAre("disconnect api 4 mode 0"));
    int slot = -1;
    sp<Fence> fence;
    EXPECT_EQ(inbound->dequeueBuffer(&slot, &fence, 1, 1, kFormat, 0, nullptr, nullptr), NO_INIT);
    EXPECT_EQ(markOf(buffer), 42);
}

TEST_F(AnImgSubHelper, WithoutASurfaceOfTheApplicationAsksAgainForEachFrame) {
    make();
    log.clear();
    EXPECT_EQ(imgSub->imgSubGetOutputFrameToFill(0), nullptr);
    service->offerSurface(ClientType::CLIENT_IMG_SUB, readerProducer);
    EXPECT_EQ(imgSub->imgSubGetOutputFrameToFill(1), nullptr);
    const auto asks = StartsWith("D connectImgSubProducer_locked: called. Line: ");
    EXPECT_THAT(logged(), ElementsAre(asks, asks, HasSubstr("_locked: No app surface yet provided. Line: ")));
    connect();
}

TEST_F(AnImgSubHelper, WithoutAReaderOrItsProducerReplacesNothing) {
    makeWith(nullptr);
    EXPECT_EQ(imgSub->imgSubGetOutputFrameToFill(0), nullptr);
    EXPECT_THAT(service->calls(), IsEmpty());
    make();
    makeWith(nullptr);
    connect();
    EXPECT_EQ(acquire(0), -1);
    EXPECT_THAT(logged(), ElementsAre("E imgSubAcquireFrame failed: invalid AImageReader"));
    imgSub->cancelImgSubFrames(0);
}

TEST_F(AConnectedImgSubHelper, SaysWhatHappensAndReconnectsInTheNextCall) {
    lend(1, 4);
    lend(1, 7);
    script->onRequest({BAD_VALUE, nullptr});
    lend(1, 3);
    SignalFence late;
    script->onDequeue({0, 4, late.fence()});
    EXPECT_EQ(imgSub->imgSubGetOutputFrameToFill(1), nullptr);
    EXPECT_EQ(Access::lentSlot(*imgSub, 1), 4);
    EXPECT_THAT(script->calls(), testing::Contains("dequeue 288x1 format 36 usage 0x30").Times(4));
    script->onQueue(BAD_VALUE);
    imgSub->imgSubQueueOutputFrame(1, 1);
    EXPECT_EQ(Access::lentSlot(*imgSub, 1), -1) << "a failed queue forgets the frame";
    EXPECT_THAT(
        logged(),
        ElementsAre("D Got re-alloc request for imgsub slot 4",
                    "E request imgsub dequeue failed, max slots reached", "E request imgsub buffer failed",
                    "W imgsub Fence hasn't been signaled yet", "E queue buffer failed imgsub"));
    lend(1, 4);
    forget();
    script->onDequeue({3, 1});
    script->onDisconnect(-22);
    EXPECT_EQ(imgSub->imgSubGetOutputFrameToFill(0), nullptr);
    imgSub->imgSubQueueOutputFrame(1, 1);
    EXPECT_THAT(script->calls(), ElementsAre(HasSubstr("dequeue"), "disconnect api 4 mode 0"))
        << "no queue to give the frame to";
    EXPECT_NE(lend(0, 0), nullptr);
    script->forgetCalls();
    imgSub->imgSubQueueOutputFrame(2, 5);
    EXPECT_THAT(script->calls(), IsEmpty()) << "nothing is lent for stream 2";
    imgSub->imgSubQueueOutputFrame(0, 2);
    imgSub->imgSubQueueOutputFrame(1, 3);
    EXPECT_THAT(script->calls(), ElementsAre("queue 0", "queue 4")) << "each stream's own";
    EXPECT_EQ(script->queued().at(0).timestamp, 2);
    EXPECT_EQ(script->queued().at(0).crop, Rect(0, 0, kRowBytes, 1));
    EXPECT_THAT(logged(),
                ElementsAre("E request imgsub dequeue failed with 3",
                            StartsWith("D disconnectImgSubProducer_locked: called. Line: "),
                            "E Unable to disconnect imgsub producer, -22",
                            StartsWith("D connectImgSubProducer_locked: called. Line: "),
                            StartsWith("D mImgSubProducer: 0x"), "D Got re-alloc request for imgsub slot 0"));
}

TEST_F(AConnectedImgSubHelper, BlockedDequeueLetsTheApplicationLeave) {
    script->whileDequeueing([&] { imgSub->setImgSubAppConnected(false); });
    EXPECT_NE(lend(1, 1), nullptr);
    EXPECT_EQ(lend(1, 1), nullptr);
}

TEST_F(AConnectedImgSubHelper, CancelResetsTheQueueAndItsOwnStreamAndForgetsEveryReplacement) {
    lend(1, 4);
    sendReplacement(1, 11);
    sendReplacement(2, 22);
    EXPECT_EQ(acquire(1), 11);
    sendReplacement(0, 33);
    sendReplacement(0, 34);  // both still in the reader
    forget();
    imgSub->cancelImgSubFrames(1);
    EXPECT_THAT(script->calls(), ElementsAre("setMax 0", "setMax 6"));
    EXPECT_THAT(logged(), ElementsAre(StartsWith("D cancelImgSubFrames: called. Line: ")));
    EXPECT_EQ(Access::lentSlot(*imgSub, 1), -1);
    EXPECT_EQ(Access::lentSlot(*imgSub, 0), 0);
    for (uint32_t streamIndex = 0; streamIndex < 4; streamIndex++) {
        EXPECT_EQ(Access::received(*imgSub, streamIndex), nullptr);
        EXPECT_EQ(Access::held(*imgSub, streamIndex), nullptr);
    }
    EXPECT_EQ(acquire(0), -1) << "what waited in the reader is gone too";
}

TEST_F(AConnectedImgSubHelper, WithoutTheApplicationDoesNothing) {
    imgSub->setImgSubAppConnected(false);
    sendReplacement(0, 1);
    EXPECT_EQ(imgSub->imgSubGetOutputFrameToFill(2), nullptr);
    EXPECT_EQ(Access::maxStreamIndex(*imgSub), 2u) << "the stream is noted all the same";
    imgSub->imgSubQueueOutputFrame(0, 1);
    imgSub->cancelImgSubFrames(0);
    EXPECT_EQ(acquire(0), -1);
    EXPECT_THAT(script->calls(), IsEmpty());
    EXPECT_THAT(logged(), ElementsAre(StartsWith("D cancelImgSubFrames: called. Line: ")));
    imgSub->setImgSubAppConnected(true);
    imgSub->imgSubQueueOutputFrame(0, 1);
    EXPECT_THAT(script->calls(), ElementsAre("queue 0"));
}

TEST_F(AConnectedImgSubHelper, StreamsAboveThreeAreRefused) {
    for (uint32_t streamIndex : {4u, 9u, 0x80000000u, 0xFFFFFFFFu}) {
        EXPECT_EQ(imgSub->imgSubGetOutputFrameToFill(streamIndex), nullptr);
        imgSub->imgSubQueueOutputFrame(streamIndex, 1);
        imgSub->cancelImgSubFrames(streamIndex);
        EXPECT_EQ(acquire(streamIndex), -1);
    }
    EXPECT_THAT(script->calls(), IsEmpty());
    EXPECT_EQ(Access::maxStreamIndex(*imgSub), 0u);
    EXPECT_EQ(logged().size(), 4u) << "the four cancels";
}

TEST_F(AConnectedImgSubHelper, HandsOutTheNewestReplacementOfTheStream) {
    sendReplacement(0, 1);
    sendReplacement(0, 2);
    EXPECT_EQ(acquire(0), 2);
    EXPECT_EQ(halImage, Access::held(*imgSub, 0));
    imgSub->imgSubReleaseFrame(0, std::move(halImage));
    EXPECT_NE(Access::held(*imgSub, 0), nullptr) << "the helper keeps it too";
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
}

TEST_F(AConnectedImgSubHelper, TakesAReplacementThatComesDuringTheWait) {
    gDuringPause = [&] {
        lend(1, 1);  // another stream goes on meanwhile
        sendReplacement(0, 5);
    };
    EXPECT_EQ(acquire(0), 5);
    gDuringPause = nullptr;
}

TEST_F(AConnectedImgSubHelper, WaitsByTheClockThatHasGoneFurther) {
    const struct {
        int64_t wallMs, steadyMs;  // how far the clocks go in a pause
        std::string waited;
    } rows[] = {{1, 1, "101 ms"}, {-3600000, 1, "101 ms"}, {3600000, 0, "3600000 ms"}};
    for (const auto& row : rows) {
        Time time = {{CLOCK_REALTIME, int64_t{1} << 40}, {CLOCK_MONOTONIC, 0}};
        gTime = &time;
        gDuringPause = [&] {
            time[CLOCK_REALTIME] += row.wallMs;
            time[CLOCK_MONOTONIC] += row.steadyMs;
        };
        log.clear();
        EXPECT_EQ(acquire(0), -1);
        gTime = nullptr;
        gDuringPause = nullptr;
        EXPECT_THAT(logged(), ElementsAre("D Timed out waiting to retrieve replacement frame: " + row.waited,
                                          "E failed to retrieve replacement frame"));
    }
}

TEST_F(AConnectedImgSubHelper, WithoutAHardwareBufferHandsOutNothing) {
    sendReplacement(0, 1);
    gImagesHaveBuffers = false;
    EXPECT_EQ(acquire(0), -1);
    gImagesHaveBuffers = true;
    EXPECT_EQ(halImage, nullptr);
    EXPECT_EQ(Access::held(*imgSub, 0), nullptr);
    EXPECT_THAT(logged(), ElementsAre("E failed to acquire hw buffer, failed to retrieve replacement frame"));
}

TEST_F(AConnectedImgSubHelper, LetsItsImagesGoBeforeItsReader) {
    sendReplacement(0, 1);
    EXPECT_EQ(acquire(0), 1);
    const std::weak_ptr<AImage> image = std::exchange(halImage, nullptr);
    gDuringDelete = [&] { EXPECT_TRUE(image.expired()); };
    imgSub.reset();
    gDuringDelete = nullptr;
}

TEST_F(AConnectedImgSubHelper, IsLockedByEachStep) {
    expectEachWaitsFor(Access::lock(*imgSub), {{"fill", [&] { imgSub->imgSubGetOutputFrameToFill(0); }},
                                               {"queue", [&] { imgSub->imgSubQueueOutputFrame(0, 1); }},
                                               {"cancel", [&] { imgSub->cancelImgSubFrames(0); }}});
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
    imgSub->cancelImgSubFrames(0);
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

TEST_F(AnImgSubHelper, OnlyMergedLowerStreamsShareTheHighestStreamsReplacement) {
    for (bool merged : {true, false}) {
        SCOPED_TRACE(merged);
        make(12, merged);
        connect();
        ASSERT_NE(lend(2, 2), nullptr);
        ASSERT_NE(lend(1, 1), nullptr);
        sendReplacement(0, 5);
        EXPECT_EQ(acquire(0), 5) << "its own while the highest has none";
        sendReplacement(2, 22);
        EXPECT_EQ(acquire(2), 22) << "the highest stream waits for its own";
        EXPECT_EQ(acquire(3), -1) << "above the highest there is nothing to share";
        imgSub->setImgSubAppConnected(false);
        log.clear();
        for (uint32_t lower : {0, 0, 1})
            EXPECT_EQ(acquire(lower), merged ? 22 : -1) << "at once, connected or not";
        EXPECT_EQ(Access::held(*imgSub, 0) == Access::received(*imgSub, 2), merged);
        EXPECT_EQ(acquire(2), -1);
        EXPECT_THAT(logged(), IsEmpty());
    }
}

TEST_F(AnImgSubHelper, StreamsRunBesideEachOther) {
    constexpr int kFrames = 20;
    make(20);
    connect();
    for (int i = 0; i < 4 * kFrames; i++)
        script->onDequeue({1, i % 7});
    std::vector<std::thread> streams;
    std::atomic<int> replaced{0};
    for (uint32_t streamIndex = 0; streamIndex < 4; streamIndex++) {
        streams.emplace_back([&, streamIndex] {
            for (int frame = 0; frame < kFrames; frame++) {
                if (streamIndex == 0) sendReplacement(frame % 4);
                if (imgSub->imgSubGetOutputFrameToFill(streamIndex) != nullptr)
                    imgSub->imgSubQueueOutputFrame(streamIndex, frame);
                std::shared_ptr<AImage> image;
                if (imgSub->imgSubAcquireFrame(streamIndex, image) != nullptr) replaced++;
                imgSub->imgSubReleaseFrame(streamIndex, image);
                if (streamIndex == 2 && frame % 8 == 7) imgSub->cancelImgSubFrames(2);
                imgSub->setImgSubAppConnected(streamIndex != 1 || frame % 10 != 9);
            }
        });
    }
    for (std::thread& stream : streams)
        stream.join();
    EXPECT_GT(replaced, 0);
}

}  // namespace
