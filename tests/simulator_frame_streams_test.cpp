// The simulator's sensor and its application, joined by the library in one process.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <hidl_host/LocalServices.h>
#include <unistd.h>

#include <memory>
#include <numeric>

#include "DesktopHelperTestAccess.h"
#include "FakeDesktopService.h"
#include "FrameCounter.h"
#include "FrameProcessor.h"
#include "FrameSensor.h"
#include "ServiceClient.h"
#include "TemporaryFolder.h"
#include "TestPicture.h"
#include "Y4mReader.h"
#include "Y4mWriter.h"

namespace {

using namespace std::chrono_literals;
using android::sp;
using android::base::unique_fd;
using testing::HasSubstr;
using vel::sim::Frame;
using vel::sim::FrameProcessor;
using vel::sim::FrameSensor;
using vel::sim::FrameSize;
using vel::sim::ServiceClient;
using vel::sim::TestPicture;
using vel::sim::Y4mReader;
using vel::sim::Y4mWriter;
using ClientType = ServiceClient::ClientType;

class ASensorAndItsApplication : public testing::Test {
  protected:
    ASensorAndItsApplication()
        : service(FakeDesktopService::start()),
          helper(DesktopHelperTestAccess::create()),
          client(
              ClientType::CLIENT_APP, [](const std::string&) { return "OK_APP"; }, nullptr) {
        service->setReply(ClientType::CLIENT_CAMERA_HAL, [this](ClientType, const std::string& text) {
            return helper->handleCommand(text);
        });
        EXPECT_TRUE(client.waitUntilConnected(30s));
        testing::internal::CaptureStdout();
    }
    ~ASensorAndItsApplication() override {
        helper.reset();
        vel::host::clearLocalServices();
    }

    // Plays frames to their end; what both printed.
    std::string play(const std::string& sensorLine, const std::string& appLine, int videoFd = -1) {
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
    ServiceClient client;
};

// So many frames of the test picture.
std::string writeClip(const TemporaryFolder& folder, FrameSize size, uint32_t frames) {
    const std::string file = folder.path("clip.y4m");
    const TestPicture picture(size, 0);
    Frame frame(size);
    Y4mWriter writer(file, size, {25, 1});
    for (uint32_t counter = 0; counter < frames; ++counter) {
        picture.draw(counter, frame.view());
        writer.writeFrame(frame.view());
    }
    writer.close();
    return file;
}

std::vector<uint32_t> countersOf(const std::string& file) {
    const unique_fd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    Y4mReader reader(file, vel::sim::readFrom(fd));
    Frame frame(reader.size());
    std::vector<uint32_t> counters;
    while (reader.readFrame(frame.view())) {
        const auto read = vel::sim::readFrameCounter(frame.view());
        counters.push_back(read ? read->counter : UINT32_MAX);
    }
    return counters;
}

// The sensor checks the counter of each replacement's picture, and the memory that it comes in.
TEST_F(ASensorAndItsApplication, CarryFourStreamsOnFourThreads) {
    const std::string output =
        play("frames 0 size=322x242 streams=4 fps=30 count=30", "frames size=322x242 effect=blur");
    EXPECT_THAT(output, HasSubstr("frames ended: well"));
    EXPECT_THAT(output, HasSubstr("out of order 0"));
}

TEST_F(ASensorAndItsApplication, CarryAnOddSize) {
    EXPECT_THAT(play("frames 0 size=97x33 count=10", "frames size=97x33 effect=mirror"),
                HasSubstr("frames ended: well"));
}

TEST_F(ASensorAndItsApplication, CarryEveryFrameOfAnInputToTheOutputOnceAndInOrder) {
    const TemporaryFolder folder;
    const unique_fd clip(open(writeClip(folder, {96, 64}, 300).c_str(), O_RDONLY | O_CLOEXEC));
    const std::string file = folder.path("replaced frames.y4m");
    EXPECT_THAT(play("frames 0 input=- output=\"" + file + "\"", "frames size=96x64 effect=tint", clip),
                HasSubstr("frames ended: well"));
    std::vector<uint32_t> expected(300);
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(countersOf(file), expected);
}

TEST_F(ASensorAndItsApplication, LeaveNoOutputOfABrokenInput) {
    const TemporaryFolder folder;
    const std::string clipFile = writeClip(folder, {96, 64}, 5);
    ASSERT_EQ(truncate(clipFile.c_str(), 4 * 96 * 64 * 3 / 2), 0);
    const unique_fd clip(open(clipFile.c_str(), O_RDONLY | O_CLOEXEC));
    const std::string file = folder.path("replaced.y4m");
    EXPECT_THAT(play("frames 0 input=- output=" + file, "frames size=96x64", clip),
                HasSubstr("frames ended: standard input"));
    EXPECT_NE(access(file.c_str(), F_OK), 0);
}

}  // namespace
