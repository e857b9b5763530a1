// The process-wide instance: its construction under many threads and under commands that arrive meanwhile,
// and its destruction while a detached thread lives. Each case is a process of its own.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <thread>
#include <vector>

#include "DesktopHelperLink.h"
#include "DetachedThread.h"
#include "FakeDesktopService.h"
#include "VelChiDesktopHelper.h"
#include "WaitUntil.h"

namespace {

constexpr int kThreads = 16;

// Sends a command to the HAL from inside the registration, as an eager peer would, on the thread that
// registers and on another one, and takes the instance as code inside a command does.
class EagerService : public FakeDesktopService {
  public:
    android::hardware::Return<void> registerCallback(
        ClientType type, const android::sp<ICameraDesktopCallback>& callback) override {
        (void)FakeDesktopService::registerCallback(type, callback).isOk();
        command();
        std::thread(&EagerService::command, this).join();
        ++registrations;
        // Lets the other first callers come in meanwhile.
        for (int i = 0; i < 1000; ++i)
            std::this_thread::yield();
        return android::hardware::Void();
    }

    std::atomic<int> registrations{0};
    std::atomic<int> answers{0};
    std::atomic<VelChiDesktopHelper*> seen{nullptr};

  private:
    void command() {
        seen = desktop_helper_link::instance();
        if (sendToCallback(R"({"general":{"originalId":0,"overrideId":2}})") == "OK_HAL") ++answers;
        sendToCallback(
            R"({"imgsub-configure-stream":{"version":"1","image-width":64,"image-height":48,)"
            R"("hal-consumer-usage":-1,"hal-consumer-buffer-count":4,"hal-consumer-v4l2-format":"RAW_PRIVATE"}})");
    }
};

void getInstanceFromManyThreads() {
    const android::sp<EagerService> service = new EagerService;
    if (service->registerAsService() != android::OK) _exit(2);
    std::atomic<int> ready{0};
    std::atomic<int> sameAsSeen{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            ++ready;
            while (ready < kThreads)
                std::this_thread::yield();
            if (VelChiDesktopHelper::getInstance() == service->seen) ++sameAsSeen;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    uint32_t cameraId = 0;
    VelChiDesktopHelper::getInstance()->updateCameraIdOnHalOpen(cameraId);
    const bool asExpected = sameAsSeen == kThreads && service->registrations == 1 && service->answers == 2 &&
                            cameraId == 2 && service->calls("setSurface 7 producer").size() == 2;
    std::exit(asExpected ? 0 : 1);
}

// What outlives the instance, whose destructor runs before that of a static object made earlier.
struct HungPeer {
    ~HungPeer() {
        service->unblock(FakeDesktopService::Operation::SEND_COMMAND);
        waiter.join();
        const bool haveEnded = waitUntil([] { return detached_thread::liveCount() == 0; });
        const bool sentOne = service->calls(FakeDesktopService::Operation::SEND_COMMAND).size() == 1;
        const bool clearedTwice = service->calls("setSurface 7 null").size() == 2;
        _exit(haveEnded && sentOne && clearedTwice ? 0 : 3);
    }
    android::sp<FakeDesktopService> service = FakeDesktopService::start();
    std::thread waiter;
};

// The process exits while a peer hangs in one message, for longer than the destruction waits, and another
// message waits for its turn. The peer goes on when the instance is gone.
void exitWithAMessageBehindOneThatHangs() {
    static HungPeer peer;
    peer.service->block(FakeDesktopService::Operation::SEND_COMMAND);
    VelChiDesktopHelper* const helper = desktop_helper_link::instance();  // which builds it
    uint32_t cameraId = 0;
    helper->updateCameraIdOnHalOpen(cameraId);
    helper->setRequiredOverrideId(0, 2);
    if (!peer.service->awaitBlocked(FakeDesktopService::Operation::SEND_COMMAND)) _exit(2);
    peer.waiter = std::thread([helper] { helper->sendSessionRestartDoneToApp(0, 2); });
    std::exit(1);
}

// Starts the test program anew, so that the body's first getInstance() is the process's first.
template <typename Body>
void expectGoodExit(const Body& body) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto limited = [&] {
        alarm(60);
        body();
    };
    EXPECT_EXIT(limited(), testing::ExitedWithCode(0), "");
}

TEST(TheInstanceDeathTest, IsOneForAllFirstCallersAndForCommandsThatArriveDuringItsConstruction) {
    expectGoodExit(getInstanceFromManyThreads);
}

TEST(TheInstanceDeathTest, IsLeftAloneByAMessageWhoseTurnComesAfterItsDestruction) {
    expectGoodExit(exitWithAMessageBehindOneThatHangs);
}

}  // namespace
