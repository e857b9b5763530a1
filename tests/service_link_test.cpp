#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <hidl_host/LocalServices.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "DesktopHelperTestAccess.h"
#include "DetachedThread.h"
#include "FakeDesktopService.h"
#include "LogCapture.h"
#include "ServiceCalls.h"
#include "WaitUntil.h"

namespace {

using namespace std::chrono_literals;
using Access = DesktopHelperTestAccess;
using korvanta::hardware::camera::desktop::V2_0::ClientType;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr char kTag[] = "VelCameraDesktopChiHelper";
constexpr char kService[] = "default";

class ALink : public testing::Test {
  protected:
    ~ALink() override {
        EXPECT_TRUE(waitUntil([] { return detached_thread::liveCount() == 0; }));
        helper.reset();
        vel::host::clearLocalServices();
    }
    void connect() {
        service = FakeDesktopService::start();
        helper = Access::create();
        log.clear();
    }
    void kill() {
        vel::host::killLocalService(kService);
        vel::host::awaitDeathNotices();
    }
    std::vector<std::string> logged() const { return log.texts(kTag); }

    LogCapture log;
    android::sp<FakeDesktopService> service;
    std::unique_ptr<VelChiDesktopHelper> helper;
};

TEST_F(ALink, WithoutAServiceLooksForItAtEachUse) {
    helper = Access::create();
    log.clear();
    const size_t lookUps = vel::host::localLookUpCount(kService);
    EXPECT_EQ(helper->setCommandTo(ClientType::CLIENT_APP, "{}"), "");
    EXPECT_EQ(helper->getSurface(ClientType::CLIENT_IMG_SUB), nullptr);
    EXPECT_EQ(vel::host::localLookUpCount(kService), lookUps + 2);
    EXPECT_THAT(logged(),
                ElementsAre("D Trying to get service", HasSubstr("D Got service for camera desktop "),
                            "E Service not available", "D Trying to get service",
                            HasSubstr("D Got service for camera desktop "), "E Service not available"));
}

TEST_F(ALink, RegistersAtConstructionClearsTheSurfaceAndDoesNotLookAgain) {
    connect();
    EXPECT_THAT(describe(service->calls()), ElementsAre("registerCallback 2", "setSurface 7 null"));
    const size_t lookUps = vel::host::localLookUpCount(kService);
    service->setReply([](ClientType type, const std::string& text) {
        return std::to_string(static_cast<int>(type)) + text + std::string("\0!", 2);
    });
    EXPECT_EQ(helper->setCommandTo(ClientType::CLIENT_CAMERA_SERVICE, std::string("a\0b", 3)),
              std::string("1a\0b\0!", 6));
    EXPECT_EQ(vel::host::localLookUpCount(kService), lookUps);
    EXPECT_THAT(logged(), testing::IsEmpty());
    service->forgetCalls();
    helper.reset();
    EXPECT_THAT(describe(service->calls()), ElementsAre("setSurface 7 null"));
}

TEST_F(ALink, ReportsAFailedCallWithItsKindAndKeepsTheProxy) {
    connect();
    using android::hardware::Status;
    vel::host::failNextLocalCalls(kService, 1, Status::fromStatusT(android::DEAD_OBJECT));
    EXPECT_EQ(helper->setCommandTo(ClientType::CLIENT_APP, "{}"), "");
    vel::host::failNextLocalCalls(kService, 1, Status::fromExceptionCode(Status::EX_ILLEGAL_STATE));
    EXPECT_EQ(helper->setCommandTo(ClientType::CLIENT_APP, "{}"), "");
    vel::host::failNextLocalCalls(kService, 1, Status::fromStatusT(android::DEAD_OBJECT));
    EXPECT_EQ(helper->getSurface(ClientType::CLIENT_APP), nullptr);
    EXPECT_THAT(logged(), ElementsAre("E setCommandTo: Failed during binder call, isDead 1",
                                      "E setCommandTo: Failed during binder call, isDead 0"));
    EXPECT_TRUE(Access::isConnected(*helper));
}

TEST_F(ALink, SurvivesAServiceThatFailsEveryCallOfTheConnection) {
    service = FakeDesktopService::start();
    vel::host::failNextLocalCalls(kService, 3,
                                  android::hardware::Status::fromStatusT(android::FAILED_TRANSACTION));
    helper = Access::create();
    EXPECT_TRUE(Access::isConnected(*helper));
    vel::host::clearLocalServices();
    helper->disconnectFromServiceLocked();
    EXPECT_FALSE(Access::isConnected(*helper));
}

TEST_F(ALink, IsMadeAgainAfterADeathHalfASecondLaterAtTheEarliest) {
    connect();
    const auto death = std::chrono::steady_clock::now();
    kill();
    EXPECT_FALSE(Access::isConnected(*helper));
    service = FakeDesktopService::start();
    ASSERT_TRUE(waitUntil([&] { return Access::isConnected(*helper); }));
    EXPECT_GE(std::chrono::steady_clock::now() - death, 500ms);
    ASSERT_TRUE(waitUntil([] { return detached_thread::liveCount() == 0; }));
    EXPECT_THAT(describe(service->calls()), ElementsAre("registerCallback 2"));
    EXPECT_THAT(logged(), ElementsAre("D Service death, disconnect", "D Trying to get service",
                                      HasSubstr("D Got service for camera desktop ")));
    kill();
    EXPECT_FALSE(Access::isConnected(*helper)) << "the death of the new service is noticed too";
}

TEST_F(ALink, IsTriedThreeTimesAfterADeathAndThenLeftToTheNextUse) {
    connect();
    const size_t lookUps = vel::host::localLookUpCount(kService);
    const auto death = std::chrono::steady_clock::now();
    kill();
    ASSERT_TRUE(waitUntil([] { return detached_thread::liveCount() == 0; }));
    EXPECT_EQ(vel::host::localLookUpCount(kService), lookUps + 3);
    EXPECT_GE(std::chrono::steady_clock::now() - death, 1500ms);

    service = FakeDesktopService::start();
    service->setReply(ClientType::CLIENT_APP, "OK");
    EXPECT_EQ(helper->setCommandTo(ClientType::CLIENT_APP, "{}"), "OK");
    EXPECT_THAT(describe(service->calls()), testing::Contains("registerCallback 2").Times(1));
}

TEST_F(ALink, AnswersACommandWhileItsOwnCommandWaits) {
    connect();
    service->block(FakeDesktopService::Operation::SEND_COMMAND);
    std::thread sender([&] { helper->setCommandTo(ClientType::CLIENT_APP, "{}"); });
    ASSERT_TRUE(service->awaitBlocked(FakeDesktopService::Operation::SEND_COMMAND));
    EXPECT_EQ(service->sendToCallback(R"({"general":{"originalId":1,"overrideId":2}})"), "OK_HAL");
    EXPECT_EQ(service->sendToCallback("{"), "PARSE_ERR");
    service->unblock(FakeDesktopService::Operation::SEND_COMMAND);
    sender.join();
}

TEST_F(ALink, RegistersOncePerConnectionHoweverManyThreadsUseIt) {
    connect();
    for (int death = 0; death < 3; ++death) {
        std::atomic<bool> stop{false};
        std::vector<std::thread> senders;
        for (int i = 0; i < 4; ++i) {
            senders.emplace_back([&] {
                while (!stop)
                    helper->setCommandTo(ClientType::CLIENT_APP, "{}");
            });
        }
        kill();
        service = FakeDesktopService::start();
        EXPECT_TRUE(waitUntil([&] { return !service->commandsTo(ClientType::CLIENT_APP).empty(); }));
        stop = true;
        for (std::thread& sender : senders)
            sender.join();
        EXPECT_THAT(describe(service->calls()), testing::Contains("registerCallback 2").Times(1));
        // The reconnection thread of this death finds the link made and leaves it alone.
        ASSERT_TRUE(waitUntil([] { return detached_thread::liveCount() == 0; }));
        EXPECT_THAT(describe(service->calls()), testing::Contains("registerCallback 2").Times(1));
    }
}

}  // namespace
