#include <gmock/gmock.h>

#include <chrono>
#include <thread>

#include "HelperFixture.h"
#include "RepeatedActions.h"

namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

class ALink : public HelperFixture {
  protected:
    static size_t lookUps() { return vel::host::localLookUpCount("default"); }
    static void failNextCalls(size_t count, const android::hardware::Status& status) {
        vel::host::failNextLocalCalls("default", count, status);
    }
    bool isConnected() { return DesktopHelperTestAccess::isConnected(*helper); }
    std::string sendToApp() { return helper->setCommandTo(ClientType::CLIENT_APP, "{}"); }
};

TEST_F(ALink, WithoutAServiceLooksForItAtEachUse) {
    const size_t before = lookUps();
    EXPECT_EQ(sendToApp(), "");
    EXPECT_EQ(helper->getSurface(ClientType::CLIENT_IMG_SUB), nullptr);
    EXPECT_EQ(lookUps(), before + 2);
    const auto lookedUp = HasSubstr("D Got service for camera desktop ");
    EXPECT_THAT(logged(), ElementsAre("D Trying to get service", lookedUp, "E Service not available",
                                      "D Trying to get service", lookedUp, "E Service not available"));
}

TEST_F(ALink, RegistersAtConstructionClearsTheSurfaceAndDoesNotLookAgain) {
    start();
    EXPECT_THAT(service->calls(), ElementsAre("registerCallback 2", "setSurface 7 null"));
    const size_t before = lookUps();
    service->setReply(ClientType::CLIENT_CAMERA_SERVICE,
                      [](ClientType, const std::string& text) { return text + std::string("\0!", 2); });
    EXPECT_EQ(helper->setCommandTo(ClientType::CLIENT_CAMERA_SERVICE, std::string("a\0b", 3)),
              std::string("a\0b\0!", 5));
    EXPECT_EQ(lookUps(), before);
    EXPECT_THAT(logged(), testing::IsEmpty());
    service->forgetCalls();
    helper.reset();
    EXPECT_THAT(service->calls(), ElementsAre("setSurface 7 null"));
}

TEST_F(ALink, ReportsAFailedCallWithItsKindAndKeepsTheProxy) {
    start();
    using android::hardware::Status;
    failNextCalls(1, Status::fromStatusT(android::DEAD_OBJECT));
    EXPECT_EQ(sendToApp(), "");
    failNextCalls(1, Status::fromExceptionCode(Status::EX_ILLEGAL_STATE));
    EXPECT_EQ(sendToApp(), "");
    failNextCalls(1, Status::fromStatusT(android::DEAD_OBJECT));
    EXPECT_EQ(helper->getSurface(ClientType::CLIENT_APP), nullptr);
    EXPECT_THAT(logged(), ElementsAre("E setCommandTo: Failed during binder call, isDead 1",
                                      "E setCommandTo: Failed during binder call, isDead 0"));
    EXPECT_TRUE(isConnected());
}

TEST_F(ALink, SurvivesAServiceThatFailsEveryCallOfTheConnection) {
    service = FakeDesktopService::start();
    failNextCalls(3, android::hardware::Status::fromStatusT(android::FAILED_TRANSACTION));
    remake();
    EXPECT_TRUE(isConnected());
    vel::host::clearLocalServices();
    helper->disconnectFromServiceLocked();
    EXPECT_FALSE(isConnected());
}

TEST_F(ALink, IsMadeAgainAfterADeathHalfASecondLaterAtTheEarliest) {
    start();
    const auto death = steady_clock::now();
    kill();
    EXPECT_FALSE(isConnected());
    service = FakeDesktopService::start();
    ASSERT_TRUE(waitUntil([&] { return isConnected(); }));
    EXPECT_GE(steady_clock::now() - death, 500ms);
    awaitThreads();
    EXPECT_THAT(service->calls(), ElementsAre("registerCallback 2"));
    EXPECT_THAT(logged(), ElementsAre("D Service death, disconnect", "D Trying to get service",
                                      HasSubstr("D Got service for camera desktop ")));
    kill();
    EXPECT_FALSE(isConnected()) << "the death of the new service is noticed too";
}

TEST_F(ALink, IsMadeAgainWhenTheServiceDiesBetweenTheLookUpAndTheDeathWatch) {
    constexpr char kRegisterCallback[] = "registerCallback";
    const android::sp<FakeDesktopService> first = FakeDesktopService::start();
    first->block(kRegisterCallback);
    std::thread connecting([this] { remake(); });
    EXPECT_TRUE(first->awaitBlocked(kRegisterCallback));
    kill();
    service = FakeDesktopService::start();
    first->unblock(kRegisterCallback);
    connecting.join();
    EXPECT_TRUE(waitUntil([&] { return !service->calls(kRegisterCallback).empty(); }));
}

TEST_F(ALink, IsTriedThreeTimesAfterADeathAndThenLeftToTheNextUse) {
    start();
    const size_t before = lookUps();
    const auto death = steady_clock::now();
    kill();
    awaitThreads();
    EXPECT_EQ(lookUps(), before + 3);
    EXPECT_GE(steady_clock::now() - death, 1500ms);

    service = FakeDesktopService::start();
    service->setReply(ClientType::CLIENT_APP, "OK");
    EXPECT_EQ(sendToApp(), "OK");
    EXPECT_THAT(service->calls(), Contains("registerCallback 2").Times(1));
}

TEST_F(ALink, RegistersOncePerConnectionHoweverManyThreadsUseIt) {
    start();
    for (int death = 0; death < 3; ++death) {
        RepeatedActions senders;
        for (int i = 0; i < 4; ++i)
            senders.add([&] { sendToApp(); });
        kill();
        service = FakeDesktopService::start();
        EXPECT_TRUE(waitUntil([&] { return !service->calls(Operation::SEND_COMMAND).empty(); }));
        senders.stop();
        // The reconnection thread of this death finds the link made and leaves it alone.
        awaitThreads();
        EXPECT_THAT(service->calls(), Contains("registerCallback 2").Times(1));
    }
}

}  // namespace
