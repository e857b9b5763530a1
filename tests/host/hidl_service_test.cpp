// The desktop service in the same process, reached as if it were in another.

#include <gtest/gtest.h>
#include <hidl_host/LocalServices.h>

#include <string>
#include <thread>

#include "FakeDesktopService.h"

namespace {

using android::sp;
using android::hardware::hidl_string;
using android::hardware::Return;
using korvanta::hardware::camera::desktop::V2_0::ClientType;
using korvanta::hardware::camera::desktop::V2_0::ICameraDesktop;
using Operation = FakeDesktopService::Operation;

// How a command went: its reply, or the kind of failure.
std::string send(const sp<ICameraDesktop>& service) {
    std::string reply = "no reply";
    const Return<void> result =
        service->sendCommand(ClientType::CLIENT_APP, "x", [&](const hidl_string& text) { reply = text; });
    if (result.isOk()) return reply;
    EXPECT_EQ(reply, "no reply");
    return result.isDeadObject() ? "dead" : "failed";
}

class ALocalService : public testing::Test {
  protected:
    ~ALocalService() override { vel::host::clearLocalServices(); }

    static void kill() {
        EXPECT_TRUE(vel::host::killLocalService("default"));
        vel::host::awaitDeathNotices();
    }

    const sp<FakeDesktopService> service = FakeDesktopService::start();
    const sp<ICameraDesktop> proxy = ICameraDesktop::tryGetService("default", false);
};

TEST_F(ALocalService, FailsEveryCallOfAnOldProxyOnceDead) {
    kill();
    EXPECT_EQ(ICameraDesktop::tryGetService(), nullptr);
    const sp<FakeDesktopService> successor = FakeDesktopService::start();
    EXPECT_EQ(send(proxy), "dead");
    EXPECT_TRUE(proxy->registerCallback(ClientType::CLIENT_CAMERA_HAL, nullptr).isDeadObject());
    EXPECT_TRUE(proxy->setSurface(ClientType::CLIENT_IMG_SUB, nullptr).isDeadObject());
    EXPECT_TRUE(proxy->getSurface(ClientType::CLIENT_IMG_SUB).isDeadObject());
    EXPECT_TRUE(service->calls().empty());
    EXPECT_EQ(send(ICameraDesktop::tryGetService()), "");
}

TEST_F(ALocalService, DoesNotDeliverTheReplyOfACallThatItDidNotSurvive) {
    service->block(Operation::SEND_COMMAND);
    std::string answer;
    std::thread caller([&] { answer = send(proxy); });
    EXPECT_TRUE(service->awaitBlocked(Operation::SEND_COMMAND));
    kill();
    service->unblock(Operation::SEND_COMMAND);
    caller.join();
    EXPECT_EQ(answer, "dead");
}

}  // namespace
