// The library in a process of its own, between real peers on a private bus.

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>

#include "ChildProcess.h"
#include "DesktopBusNames.h"
#include "DesktopHelperTestAccess.h"
#include "DetachedThread.h"
#include "PrivateBus.h"
#include "Programs.h"
#include "ServiceClient.h"
#include "WaitUntil.h"

namespace {

using namespace std::chrono_literals;
using Access = DesktopHelperTestAccess;
using vel::sim::ChildProcess;
using vel::sim::PrivateBus;
using vel::sim::ServiceClient;
using ClientType = ServiceClient::ClientType;

// One bus for the process, which keeps its connection to it; each test starts a service of its own.
const std::string& busAddress() {
    static const PrivateBus bus;
    return bus.address();
}

class BetweenProcesses : public testing::Test {
  protected:
    static void SetUpTestSuite() { setenv(vel::desktop_bus::kAddressVariable, busAddress().c_str(), 1); }
    void SetUp() override { service = startService(busAddress()); }
    // Detached threads of the library use its instance, which here is the test's and not the process's.
    void TearDown() override {
        ASSERT_TRUE(waitUntil([] { return detached_thread::liveCount() == 0; }));
        helper.reset();
    }

    std::unique_ptr<ChildProcess> service;
    std::unique_ptr<VelChiDesktopHelper> helper;
};

TEST_F(BetweenProcesses, AServiceKilledDuringACommandIsFoundAgainWhenItIsBack) {
    std::atomic<int> commandsAtApp{0};
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    ServiceClient app(
        ClientType::CLIENT_APP,
        [&, released](const std::string&) -> std::string {
            if (commandsAtApp.fetch_add(1) == 0) released.wait();
            return "OK_APP";
        },
        nullptr);
    ASSERT_TRUE(app.waitUntilConnected(30s));
    helper = Access::create();
    ASSERT_TRUE(Access::isConnected(*helper));

    std::thread sender([&] { helper->sendSessionRestartDoneToApp(0, 2); });
    ASSERT_TRUE(waitUntil([&] { return commandsAtApp.load() == 1; })) << "the command never arrived";
    service->kill(SIGKILL);
    service->wait();
    sender.join();  // the command failed with its service; it did not hang
    ASSERT_TRUE(waitUntil([&] { return !Access::isConnected(*helper); }));

    std::this_thread::sleep_for(700ms);  // the service's absence, not a wait
    service = startService(busAddress());
    ASSERT_TRUE(service->waitForLine("HAL registered")) << "the callback was not registered again";
    release.set_value();
    ASSERT_TRUE(service->waitForLine("APP registered"));
    helper->sendSessionRestartDoneToApp(0, 3);
    EXPECT_TRUE(waitUntil([&] { return commandsAtApp.load() == 2; })) << "the next command did not arrive";
    ASSERT_TRUE(app.waitUntilConnected(30s));
    EXPECT_EQ(app.send(ClientType::CLIENT_CAMERA_HAL, R"({"get":{"what":"version"}})").text,
              R"({"error":"Not implemented"})");
}

// The application asks and commands before it answers the library's message, and the camera closes meanwhile:
// the link is held by that message, and the command needs the registry that the close needs too.
TEST_F(BetweenProcesses, AnApplicationThatTalksBackWhileACameraClosesNeverHangsTheLibrary) {
    constexpr int kRounds = 1000;
    const auto app = startProgram(
        {"desktop_app", "--stay", "--quiet", "--talk-back", R"({"get":{"what":"overrideId","originalId":0}})",
         "--talk-back", R"({"general":{"originalId":0,"overrideId":3}})"},
        busAddress());
    ASSERT_TRUE(service->waitForLine("APP registered"));
    helper = Access::create();
    ASSERT_TRUE(Access::isConnected(*helper));

    for (int round = 0; round < kRounds; ++round) {
        uint32_t cameraId = 0;
        helper->updateCameraIdOnHalOpen(cameraId);
        ASSERT_EQ(cameraId, 4u) << "round " << round;
        std::thread notice([&] { helper->sendSessionRestartDoneToApp(0, cameraId); });
        helper->onHalClose(0);
        notice.join();
        helper->onHalClose(0);  // what the application asked for after the first close
        ASSERT_TRUE(waitUntil([] { return detached_thread::liveCount() == 0; }));
    }
    EXPECT_FALSE(Access::settings(*helper, 0).restartPending);
    app->kill(SIGTERM);
    EXPECT_EQ(app->wait(), 0);
}

}  // namespace
