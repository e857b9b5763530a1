// The library and the programs without descriptors, threads, room on the disk or standard streams.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <media/NdkImageReader.h>
#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <iostream>
#include <memory>

#include "ChildProcess.h"
#include "ConsumerQueue.h"
#include "DesktopBusNames.h"
#include "DesktopHelperTestAccess.h"
#include "DetachedThread.h"
#include "FrameView.h"
#include "LogCapture.h"
#include "NextDefinition.h"
#include "PrivateBus.h"
#include "Programs.h"
#include "SignalFence.h"
#include "TemporaryFolder.h"
#include "WaitUntil.h"

namespace {
std::atomic<bool> gRefusesThreads{false};
}

// In place of the C library's: a limit of threads does not hold for root.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                              void* argument) {
    if (gRefusesThreads) return EAGAIN;
    return nextDefinition<decltype(pthread_create)>(__func__)(thread, attributes, body, argument);
}

namespace {

using Access = DesktopHelperTestAccess;
using testing::HasSubstr;
using vel::sim::ChildProcess;
using vel::sim::PrivateBus;

// A process gets no further descriptor while this lives.
class NoDescriptors {
  public:
    explicit NoDescriptors(pid_t pid) : mPid(pid) {
        prlimit(mPid, RLIMIT_NOFILE, nullptr, &mBefore);
        const rlimit none = {4, mBefore.rlim_max};  // as few as anybody polls
        prlimit(mPid, RLIMIT_NOFILE, &none, nullptr);
    }
    ~NoDescriptors() { prlimit(mPid, RLIMIT_NOFILE, &mBefore, nullptr); }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

  private:
    const pid_t mPid;
    rlimit mBefore = {};
};

// --- The library ---

// An application in a process of its own, which gives each frame back with a fence.
class FencedApp : public android::ConsumerBase::FrameAvailableListener {
  public:
    static void run() {
        const auto service = VelChiDesktopHelper::ICameraDesktop::tryGetService("default", false);
        const android::sp<FencedApp> app = new FencedApp;
        app->mQueue.consumer->setFrameAvailableListener(app);
        (void)service->setSurface(VelChiDesktopHelper::ClientType::CLIENT_APP, app->mQueue.surface).isOk();
        std::cout << "ready" << std::endl;
        std::cin.get();
        _exit(EXIT_SUCCESS);
    }
    void onFrameAvailable(const android::BufferItem&) override {
        android::BufferItem item;
        if (mQueue.consumer->acquireBuffer(&item, 0) != android::NO_ERROR) return;
        mQueue.consumer->releaseBuffer(item, mFence.fence());
        std::cout << "released" << std::endl;
    }

  private:
    FencedApp() { mFence.signal(); }
    ConsumerQueue mQueue;
    SignalFence mFence;
};

class AnExhaustedLibrary : public testing::Test {
  protected:
    static const std::string& busAddress() {
        static const PrivateBus bus;
        return bus.address();
    }
    static void SetUpTestSuite() { setenv(vel::desktop_bus::kAddressVariable, busAddress().c_str(), 1); }
    void SetUp() override {
        service = startService(busAddress());
        helper = Access::create();
        ASSERT_TRUE(Access::isConnected(*helper));
    }
    void TearDown() override {
        ASSERT_TRUE(waitUntil([] { return detached_thread::liveCount() == 0; }));
        helper.reset();
    }
    bool sendFrame() {
        const bool hasBuffer = helper->getFrameToFill() != nullptr;
        helper->queueFilledFrame(1);
        return hasBuffer;
    }
    std::string errors() const {
        std::string all;
        for (const std::string& line : log.texts("VelCameraDesktopChiHelper"))
            all += line[0] == 'E' ? line + "\n" : "";
        return all;
    }

    std::unique_ptr<ChildProcess> service;
    std::unique_ptr<VelChiDesktopHelper> helper;
    LogCapture log;
};

// The descriptor that cannot be had is that of a new buffer, then that of a fence.
TEST_F(AnExhaustedLibrary, SkipsFramesWithoutDescriptors) {
    const auto app = startProgram({"/proc/self/exe", "--app"});
    ASSERT_TRUE(app->waitForLine("ready"));
    ASSERT_TRUE(helper->connectProducer(64, 1, AIMAGE_FORMAT_RAW_PRIVATE));
    for (const char* error : {"E request buffer failed\n", "E request dequeue failed with -32\n"}) {
        log.clear();
        {
            const NoDescriptors none(0);
            EXPECT_FALSE(sendFrame());
        }
        EXPECT_THAT(errors(), testing::StartsWith(error));
        EXPECT_EQ(log.count("E A buffer queue has sent what there is no descriptor for"), 1u);
        ASSERT_TRUE(waitUntil([&] { return sendFrame(); })) << error;
        EXPECT_TRUE(app->waitForLine("released"));
    }
}

TEST_F(AnExhaustedLibrary, DropsMessagesAndFindsTheServiceLaterWithoutThreads) {
    uint32_t cameraId = 1;
    helper->updateCameraIdOnHalOpen(cameraId);
    gRefusesThreads = true;
    helper->setRequiredOverrideId(1, 2);
    service->kill(SIGKILL);
    EXPECT_TRUE(waitUntil([&] { return !Access::isConnected(*helper); }));
    gRefusesThreads = false;
    EXPECT_EQ(errors(),
              "E No thread for the restart request: error 11\nE No thread for the reconnection: error 11\n");
    service = startService(busAddress());
    helper->triggerSessionRestart(1);
    EXPECT_TRUE(service->waitForLine("HAL registered"));
}

// --- The programs ---

struct Shortage {
    const char* before;  // the program, in a shell
    const char* program;
    const char* behind;
    int code;
    const char* words;  // in what it says on standard error
};

constexpr char kTimeline[] = "desktop_run: the timeline cannot be written to standard output";
constexpr char kAsNobody[] = "setpriv --reuid 54321 --clear-groups";  // which root may do
const Shortage kShortages[] = {
    {"", "desktop_run", "--output /dev/full", 1, "desktop_run: cannot write /dev/full: No space left"},
    {"", "desktop_run", ">/dev/full", 1, kTimeline},
    {"", "desktop_run", ">&-", 1, kTimeline},
    {"", "desktop_run", "2>&-", 0, ""},
    {"", "desktop_run", "<&- >&- 2>&-", 1, ""},
    {kAsNobody, "desktop_run", "", 1, "there is no entry in the password database"},
    {"ulimit -n 16;", "desktop_run", "", 1, "desktop_run: "},
    {"ulimit -n 6;", "desktop_service", "--bus unix:path=/none", 1, "desktop_service: "},
#if !defined(VEL_SANITIZED) && defined(__LP64__)
    // With stacks larger than all addresses that it may use no program gets a second thread.
    {"ulimit -s 4000000 -v 3000000;", "desktop_run", "", 1, "desktop_run: no thread for"},
    {"ulimit -s 4000000 -v 3000000;", "desktop_app", "", 1, "desktop_app: no thread for"},
    {"ulimit -s 4000000 -v 3000000;", "camera_server", "", 1, "camera_server: no thread for"},
#endif
};

bool mayStartAsNobody() {
    const std::string probe = std::string(kAsNobody) + " test -x '" + programPath("desktop_run") + "' 2>&-";
    return std::system(probe.c_str()) == 0;
}

TEST(AnExhaustedProgram, SaysSoInALineAndEnds) {
    const TemporaryFolder folder;
    std::string video = "YUV4MPEG2 W64 H48 F25:1\n";
    for (int frame = 0; frame < 3; ++frame)
        video += "FRAME\n" + std::string(vel::sim::frameBytes({64, 48}), 'x');
    folder.write("video", video);
    for (const Shortage& shortage : kShortages) {
        const std::string input = shortage.program == std::string("desktop_run") ? " --input video " : " ";
        const std::string command =
            shortage.before + (" '" + programPath(shortage.program)) + "'" + input + shortage.behind;
        SCOPED_TRACE(command);
        if (shortage.before == kAsNobody && !mayStartAsNobody()) continue;
        const auto shell = startProgram({"/bin/bash", "-c",
                                         "cd '" + folder.path("") + "'; exec 3>&1 2>errors >timeline; (" +
                                             command + ") 3>&-; echo \"code $?\" >&3"});
        EXPECT_TRUE(shell->waitForLine("code " + std::to_string(shortage.code)));
        EXPECT_THAT(folder.read("errors"), HasSubstr(shortage.words));
    }
}

TEST(AnExhaustedProgram, GoesOnWhenItHasDescriptorsAgain) {
    const PrivateBus bus;
    const auto service = startService(bus.address());
    const auto camera = startProgram({"camera_server"}, bus.address());
    ASSERT_TRUE(service->waitForLine("HAL registered"));
    const auto app = startProgram({"desktop_app", "-"}, bus.address());
    ASSERT_TRUE(app->waitForLine("registered"));
    camera->writeLine("frames 0 size=64x48");
    ASSERT_TRUE(camera->waitForLine("ready"));
    {
        const NoDescriptors none(app->pid());
        app->writeLine("frames size=64x48");
        EXPECT_TRUE(app->waitForLine("error "));
    }
    EXPECT_TRUE(app->waitForLine("registered")) << "the bus had to be left";
    app->writeLine("frames size=64x48");
    EXPECT_TRUE(app->waitForLine("configured"));
    EXPECT_TRUE(camera->waitForLine("replaced in time"));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::string(argv[1]) == "--app") FencedApp::run();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
