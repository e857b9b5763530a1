// A stream of the simulator's sensor, with the library in the same process.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <hidl_host/LocalServices.h>
#include <media/NdkImageReader.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <climits>

#include "ConsumerQueue.h"
#include "DesktopHelperTestAccess.h"
#include "FakeDesktopService.h"
#include "FrameBuffer.h"
#include "FrameSensor.h"
#include "FrameStream.h"
#include "NextDefinition.h"
#include "PreviewFeed.h"
#include "ReplacementQueue.h"
#include "ScriptedProducer.h"
#include "TestPicture.h"
#include "Timeline.h"
#include "VelImgSubHelper.h"
#include "WaitUntil.h"

namespace {
std::atomic<int> gGrantedThreads{-1};  // before one is refused; negative: all
}

// In place of the C library's, so that a test can refuse a thread.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                              void* argument) {
    if (gGrantedThreads >= 0 && gGrantedThreads-- == 0) return EAGAIN;
    return nextDefinition<decltype(pthread_create)>(__func__)(thread, attributes, body, argument);
}

namespace {

using namespace vel::sim;
using android::GraphicBuffer;
using android::sp;
using testing::ElementsAre;
using testing::HasSubstr;
using ClientType = FakeDesktopService::ClientType;

// An application of the test's own, which sends what it likes.
TEST(AFrameStream, CountsWhatBecameOfEachFrame) {
    constexpr FrameSize kSize{96, 64};
    const sp<FakeDesktopService> service = FakeDesktopService::start();
    const auto helper = DesktopHelperTestAccess::create();
    const std::string reply = helper->handleCommand(
        R"({"imgsub-configure-stream":{"version":"v1","image-width":96,"image-height":64,)"
        R"("hal-consumer-usage":3,"hal-consumer-buffer-count":16,"hal-consumer-v4l2-format":"RAW_PRIVATE"}})");
    ASSERT_THAT(reply, HasSubstr("app-consumer-width"));
    ReplacementQueue replacements(service->surface(ClientType::CLIENT_IMG_SUB));
    const ConsumerQueue frames;
    service->offerSurface(ClientType::CLIENT_IMG_SUB, frames.surface);
    // Replaces the frame by the picture of that number.
    const auto replace = [&](uint32_t counter, uint32_t picture, uint64_t memoryOffset) {
        const auto fill = [&](const sp<GraphicBuffer>& buffer) {
            const MappedBuffer mapped(buffer, GraphicBuffer::USAGE_SW_WRITE_OFTEN);
            TestPicture(kSize, 0).draw(picture, FrameView(mapped.data(), kSize));
            writeFrameHeader(mapped.data(), kSize,
                             {counter, 0, 1000 + counter, memoryIdentity(*buffer) + memoryOffset, 0});
        };
        EXPECT_TRUE(replacements.send(static_cast<uint32_t>(frameRowBytes(kSize)), 0, fill));
    };
    std::vector<uint32_t> shown;
    FrameStream::Setup setup;
    setup.size = kSize;
    setup.fps = 2;
    setup.count = 6;
    setup.hasCounters = true;
    setup.draw = [&](uint32_t counter, const FrameView&) {
        if (counter == 0) replace(0, 0, 0);
        // 1 is not replaced while it could be.
        if (counter == 2) replace(1, 1, 0);
        if (counter == 3) replace(3, 77, 0);
        if (counter == 4) replace(4, 4, 1);
        if (counter == 5) helper->mImgSubHelper->setImgSubAppConnected(false);
        return true;
    };
    setup.output = [&](const FrameHeader&, const ConstFrameView&, const std::optional<FrameHeader>& header,
                       const std::optional<ConstFrameView>&) { shown.push_back(header->counter); };
    const StopSignal stop;
    FrameStream stream(helper.get(), setup, stop);
    const int64_t startNs = steadyNowNs();
    stream.run();
    const int64_t durationNs = steadyNowNs() - startNs;

    EXPECT_THAT(shown, ElementsAre(0, 0, 1, 3, 4));
    const FrameCounts counts = stream.counts();
    EXPECT_EQ(counts.sent, 5u);
    EXPECT_EQ(counts.replaced, 3u);
    EXPECT_EQ(counts.repeated, 1u);
    EXPECT_EQ(counts.late, 1u);
    EXPECT_EQ(counts.dropped, 1u);
    EXPECT_EQ(counts.copies, 1u);
    EXPECT_EQ(counts.wrong, 1u);
    EXPECT_EQ(stream.latency().count(), counts.replaced);
    EXPECT_LT(stream.latency().maxNs(), durationNs);
    vel::host::clearLocalServices();
}

// A HAL that gives slots that do not exist or were never filled, and buffers of another size.
TEST(AReplacementQueue, WritesIntoNothingButABufferOfTheSizeThatItAskedFor) {
    constexpr uint32_t kBytes = 4096;
    constexpr int kNew = ScriptedProducer::BUFFER_NEEDS_REALLOCATION;
    const sp<ScriptedProducer> hal = new ScriptedProducer;
    ReplacementQueue queue(new android::TWGraphicBufferProducer<android::HGraphicBufferProducer>(hal));
    const struct {
        ScriptedProducer::Dequeue answer;
        uint32_t requested;  // the bytes of the buffer that the HAL hands out; 0 when none may be asked for
        bool isSent;
    } rows[] = {
        {{kNew, -3}, 0, false},
        {{kNew, 64}, 0, false},
        {{0, INT_MAX}, 0, false},
        {{0, 5}, 0, false},  // never requested
        {{kNew, 5}, 16, false},
        {{0, 5}, 0, false},  // and not kept
        {{kNew, 5}, kBytes, true},
        {{0, 5}, 0, true},
        {{android::NO_INIT}, 0, false},  // as after a disconnection by somebody else
        {{0, 5}, 0, false},              // a slot of the connection before
        {{kNew, 5}, kBytes, true},
    };
    for (const auto& [answer, requested, isSent] : rows) {
        SCOPED_TRACE(answer.slot);
        hal->onDequeue(answer);
        if (requested != 0) {
            hal->onRequest({android::NO_ERROR, new GraphicBuffer(requested, 1, AIMAGE_FORMAT_RAW_PRIVATE, 1,
                                                                 GRALLOC_USAGE_SW_WRITE_OFTEN)});
        }
        bool isFilled = false;
        EXPECT_EQ(queue.send(kBytes, 0, [&](const sp<GraphicBuffer>&) { isFilled = true; }), isSent);
        EXPECT_EQ(isFilled, isSent);
    }
}

// An application whose first buffer is too small for the picture.
TEST(APreviewFeed, DrawsIntoNothingButABufferOfItsPicturesSize) {
    const sp<FakeDesktopService> service = FakeDesktopService::start();
    const auto helper = DesktopHelperTestAccess::create();
    const sp<ScriptedProducer> application = new ScriptedProducer;
    const auto rowBytes = static_cast<uint32_t>(frameRowBytes(kPreviewSize));
    for (const uint32_t width : {16u, rowBytes}) {
        application->onDequeue({ScriptedProducer::BUFFER_NEEDS_REALLOCATION, 0});
        application->onRequest({android::NO_ERROR, new GraphicBuffer(width, 1, AIMAGE_FORMAT_RAW_PRIVATE, 1,
                                                                     GRALLOC_USAGE_SW_WRITE_OFTEN)});
    }
    service->offerSurface(ClientType::CLIENT_APP,
                          new android::TWGraphicBufferProducer<android::HGraphicBufferProducer>(application));
    StopSignal end;
    PreviewFeed feed(helper.get(), end);
    EXPECT_TRUE(waitUntil([&] { return feed.frames() == 1; }));
    end.set();
    feed.join();
    EXPECT_EQ(application->queued().size(), 2u) << "every slot goes back";
    vel::host::clearLocalServices();
}

TEST(AFrameSensor, TellsThatAThreadWasRefusedAndGoesOn) {
    const sp<FakeDesktopService> service = FakeDesktopService::start();
    const auto helper = DesktopHelperTestAccess::create();
    FrameSensor sensor(helper.get());
    for (int grants = 0; grants < 4; ++grants) {  // of the session, the preview and the streams
        testing::internal::CaptureStdout();
        gGrantedThreads = grants;
        (void)sensor.execute("frames 0 size=64x48 streams=2 count=2");
        EXPECT_TRUE(waitUntil([] { return gGrantedThreads < 0; }));
        sensor.end();
        EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("no thread for ")) << grants;
    }
    vel::host::clearLocalServices();
}

}  // namespace
