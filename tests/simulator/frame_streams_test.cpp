// The simulator's sensor and its application, joined by the library in one process.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <hidl_host/LocalServices.h>
#include <unistd.h>

#include <memory>

#include "ConsumerQueue.h"
#include "DesktopHelperTestAccess.h"
#include "FakeDesktopService.h"
#include "FrameBuffer.h"
#include "FrameProcessor.h"
#include "FrameSensor.h"
#include "FrameStream.h"
#include "ReplacementQueue.h"
#include "ServiceClient.h"
#include "TemporaryFolder.h"
#include "TestPicture.h"
#include "Timeline.h"
#include "VelImgSubHelper.h"

namespace {

using namespace std::chrono_literals;
using namespace vel::sim;
using android::GraphicBuffer;
using android::sp;
using android::base::unique_fd;
using testing::ElementsAre;
using testing::HasSubstr;
using ClientType = ServiceClient::ClientType;

class ASensor : public testing::Test {
  protected:
    ASensor() : service(FakeDesktopService::start()), helper(DesktopHelperTestAccess::create()) {}
    ~ASensor() override {
        helper.reset();
        vel::host::clearLocalServices();
    }

    // Plays frames to their end with the simulator's application; what both printed.
    std::string play(const std::string& sensorLine, const std::string& appLine, int videoFd = -1) {
        service->setReply(ClientType::CLIENT_CAMERA_HAL, [this](ClientType, const std::string& text) {
            return helper->handleCommand(text);
        });
        ServiceClient client(
            ClientType::CLIENT_APP, [](const std::string&) { return "OK_APP"; }, nullptr);
        EXPECT_TRUE(client.waitUntilConnected(30s));
        testing::internal::CaptureStdout();
        {
            FrameProcessor app(client);
            FrameSensor sensor(helper.get());
            sensor.setStream(videoFd);
            EXPECT_TRUE(sensor.execute(sensorLine));
            EXPECT_TRUE(app.execute(appLine));
            sensor.waitUntilOver();
        }
        return testing::internal::GetCapturedStdout();
    }

    sp<FakeDesktopService> service;
    std::unique_ptr<VelChiDesktopHelper> helper;
};

// The sensor checks the counter of each replacement's picture, and the memory that it comes in.
TEST_F(ASensor, CarriesAnOddSize) {
    EXPECT_THAT(play("frames 0 size=97x33 count=10", "frames size=97x33 effect=mirror"),
                HasSubstr("frames ended: well"));
}

TEST_F(ASensor, LeavesNoOutputOfABrokenInput) {
    const TemporaryFolder folder;
    const std::string whole = "FRAME\n" + std::string(frameBytes({96, 64}), 'x');
    const std::string clip =
        folder.write("clip", "YUV4MPEG2 W96 H64 F25:1\n" + whole + whole + whole.substr(0, 5000));
    const unique_fd clipFd(open(clip.c_str(), O_RDONLY | O_CLOEXEC));
    const std::string file = folder.path("replaced.y4m");
    EXPECT_THAT(play("frames 0 input=- output=" + file, "frames size=96x64", clipFd),
                HasSubstr("frames ended: standard input: ends inside frame 2"));
    EXPECT_NE(access(file.c_str(), F_OK), 0);
}

// An application of the test's own, which sends what it likes.
class AFrameStream : public ASensor {
  protected:
    static constexpr FrameSize kSize{96, 64};

    void SetUp() override {
        const std::string reply = helper->handleCommand(
            R"({"imgsub-configure-stream":{"version":"v1","image-width":96,"image-height":64,)"
            R"("hal-consumer-usage":3,"hal-consumer-buffer-count":16,"hal-consumer-v4l2-format":"RAW_PRIVATE"}})");
        ASSERT_THAT(reply, HasSubstr("app-consumer-width"));
        replacements = std::make_unique<ReplacementQueue>(service->surface(ClientType::CLIENT_IMG_SUB));
        service->offerSurface(ClientType::CLIENT_IMG_SUB, frames.surface);
    }
    // Replaces the frame, whose picture is the one of that number.
    void replace(uint32_t counter, uint32_t picture, uint64_t memoryOffset) {
        const auto fill = [&](const sp<GraphicBuffer>& buffer) {
            const MappedBuffer mapped(buffer, GraphicBuffer::USAGE_SW_WRITE_OFTEN);
            TestPicture(kSize, 0).draw(picture, FrameView(mapped.data(), kSize));
            writeFrameHeader(mapped.data(), kSize,
                             {counter, 0, 1000 + counter, memoryIdentity(*buffer) + memoryOffset, 0});
        };
        EXPECT_TRUE(replacements->send(static_cast<uint32_t>(frameRowBytes(kSize)), 0, fill));
    }

    std::unique_ptr<ReplacementQueue> replacements;
    const ConsumerQueue frames;
};

TEST_F(AFrameStream, CountsWhatBecameOfEachFrame) {
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
}

}  // namespace
