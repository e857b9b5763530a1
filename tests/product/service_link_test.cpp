#include <gmock/gmock.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "HelperFixture.h"
#include "HelperLifetime.h"
#include "RepeatedActions.h"
#include "WaitsForLock.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr useconds_t kReconnectPauseUs = 500 * 1000;
constexpr std::chrono::milliseconds kLimit(30000), kMoment(30);

// The helper's pauses, which take no time here.
std::atomic<int> gReconnectPauses, gLeavingPauses;
std::atomic<bool> gReconnectionSleeps;  // until this is cleared
std::function<void()> gWhileLeaving;    // on the thread that ends the helper

}  // namespace

// In place of the C library's.
extern "C" int usleep(useconds_t length) {
    if (length == kReconnectPauseUs) {
        ++gReconnectPauses;
        EXPECT_TRUE(waitUntil([] { return !gReconnectionSleeps; }));
    } else {
        ++gLeavingPauses;
        if (gWhileLeaving) gWhileLeaving();
    }
    return 0;
}

namespace {

// A service whose commands are carried out and then fail.
struct FailingService : FakeDesktopService {
    static android::hardware::Status failure() {
        return android::hardware::Status::fromStatusT(android::FAILED_TRANSACTION);
    }
    android::hardware::Return<void> sendCommand(ClientType, const android::hardware::hidl_string&,
                                                sendCommand_cb reply) override {
        reply("late");
        return failure();
    }
};

class ALink : public HelperFixture {
  protected:
    ALink() {
        gReconnectPauses = gLeavingPauses = 0;
        gWhileLeaving = nullptr;
    }

    static size_t lookUps() { return vel::host::localLookUpCount("default"); }
    static void failNextCalls(size_t count, const android::hardware::Status& status) {
        vel::host::failNextLocalCalls("default", count, status);
    }
    bool isConnected() { return DesktopHelperTestAccess::isConnected(*helper); }
    std::mutex& linkLock() { return DesktopHelperTestAccess::serviceLock(*helper); }
    // What the destructor does first, with the helper still there to be looked at.
    void end() { helper_lifetime::end(helper.get()); }
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
    EXPECT_THAT(logged(), IsEmpty());
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

TEST_F(ALink, SurvivesAServiceThatFailsEveryCall) {
    service = FakeDesktopService::start();
    failNextCalls(4, FailingService::failure());  // registration, death watch, surface, end of the watch
    remake();
    EXPECT_TRUE(isConnected());
    helper->disconnectFromServiceLocked();
    EXPECT_FALSE(isConnected());
    EXPECT_EQ(sendToApp(), "");
    EXPECT_THAT(service->calls(), ElementsAre("registerCallback 2", "sendCommand 0 {}"));

    DesktopHelperTestAccess::setProxy(*helper, new FailingService);
    EXPECT_EQ(sendToApp(), "late") << "a reply that came before the failure counts";
    EXPECT_EQ(log.count("setCommandTo: Failed during binder call, isDead 0"), 1u);
}

TEST_F(ALink, IsMadeAgainAfterADeath) {
    start();
    gReconnectionSleeps = true;
    kill();
    EXPECT_FALSE(isConnected());
    service = FakeDesktopService::start();
    gReconnectionSleeps = false;
    awaitThreads();
    EXPECT_TRUE(isConnected());
    EXPECT_EQ(gReconnectPauses, 1) << "before the look-up";
    EXPECT_THAT(service->calls(), ElementsAre("registerCallback 2"));
    EXPECT_THAT(logged(), ElementsAre("D Service death, disconnect", "D Trying to get service",
                                      HasSubstr("D Got service for camera desktop ")));
    kill();
    EXPECT_FALSE(isConnected()) << "the death of the new service is noticed too";
}

TEST_F(ALink, IsMadeAgainWhenTheServiceDiesBetweenTheLookUpAndTheDeathWatch) {
    FakeDesktopService::start()->during(Operation::REGISTER_CALLBACK, [this] {
        kill();
        EXPECT_EQ(log.count("Service death"), 0u) << "not watched yet";
        service = FakeDesktopService::start();
    });
    remake();
    vel::host::awaitDeathNotices();
    awaitThreads();
    EXPECT_THAT(service->calls(), Contains("registerCallback 2"));
}

TEST_F(ALink, IsTriedThreeTimesAfterADeathAndThenLeftToTheNextUse) {
    start();
    const size_t before = lookUps();
    kill();
    awaitThreads();
    EXPECT_EQ(lookUps(), before + 3);
    EXPECT_EQ(gReconnectPauses, 3);

    service = FakeDesktopService::start();
    service->setReply(ClientType::CLIENT_APP, "OK");
    EXPECT_EQ(sendToApp(), "OK");
    EXPECT_THAT(service->calls(), Contains("registerCallback 2").Times(1));
}

TEST_F(ALink, IsHeldDuringEachCall) {
    start();
    const std::tuple<const char*, const char*, std::function<void()>> calls[] = {
        {"command", Operation::SEND_COMMAND, [&] { sendToApp(); }},
        {"surface", Operation::GET_SURFACE, [&] { helper->getSurface(ClientType::CLIENT_APP); }},
        {"frames", Operation::GET_SURFACE, [&] { helper->connectProducer(640, 480, 1); }},
        {"node", Operation::SET_SURFACE, [&] { helper->ImgSubNodeDisconnect(); }}};
    for (const auto& [name, operation, call] : calls) {
        bool wasFree = true;
        service->during(operation, [&] { wasFree = isFree(linkLock()); });
        call();
        service->during(operation, nullptr);
        EXPECT_FALSE(wasFree) << name;
    }
}

// --- The end of the helper ---

TEST_F(ALink, IsNotTouchedByWhatWaitsForItWhileTheHelperEnds) {
    start();
    service->forgetCalls();
    expectEachWaitsFor(linkLock(),
                       {{"command", [&] { EXPECT_EQ(sendToApp(), ""); }},
                        {"surface", [&] { EXPECT_EQ(helper->getSurface(ClientType::CLIENT_APP), nullptr); }},
                        {"death", [&] { helper->handleDeathNotification(); }}},
                       [&] { end(); });
    EXPECT_TRUE(isConnected());
    EXPECT_EQ(detached_thread::liveCount(), 0);
    EXPECT_THAT(service->calls(), IsEmpty());
    EXPECT_THAT(logged(), ElementsAre("D Service death, disconnect"));
}

TEST_F(ALink, IsNotMadeAgainForAHelperThatEnds) {
    for (const bool whileItSleeps : {true, false}) {
        SCOPED_TRACE(whileItSleeps);
        start();
        gReconnectionSleeps = true;
        kill();
        EXPECT_TRUE(waitUntil([] { return gReconnectPauses > 0; }));
        EXPECT_TRUE(isFree(linkLock())) << "a reconnection that sleeps holds nothing";
        const size_t before = lookUps();
        std::unique_lock<std::mutex> lock(linkLock());
        if (whileItSleeps) {
            end();
            EXPECT_EQ(gLeavingPauses, 0) << "nobody is inside";
        }
        gReconnectionSleeps = false;
        EXPECT_EQ(
            waitUntil([] { return detached_thread::liveCount() == 0; }, whileItSleeps ? kLimit : kMoment),
            whileItSleeps);
        end();
        lock.unlock();
        awaitThreads();
        EXPECT_EQ(lookUps(), before);
        gReconnectPauses = gLeavingPauses = 0;
    }
}

TEST_F(ALink, IsClosedToLateVisitorsOfAHelperThatEnds) {
    start();
    record(0).restartPending = true;
    uint32_t cameraId = 0;
    end();
    EXPECT_EQ(gLeavingPauses, 0) << "there is nobody to wait for";
    helper->updateCameraIdOnHalOpen(cameraId);
    helper->setRequiredOverrideId(0, 2);
    kill();
    awaitThreads();
    EXPECT_THAT(logged(), IsEmpty());

    start();
    const auto next = DesktopHelperTestAccess::create();
    helper.reset();
    EXPECT_EQ(service->sendToCallback("{}"), "OK_HAL") << "the next helper's visitors are welcome";
    helper = DesktopHelperTestAccess::create();
    helper.reset();
    EXPECT_EQ(service->sendToCallback("{}"), "") << "nobody's are";
}

TEST_F(ALink, IsWaitedForByTheEndOfTheHelperUntilTheAnswer) {
    start();
    service->block(Operation::SEND_COMMAND);
    record(0).restartPending = true;
    uint32_t cameraId = 0;
    helper->updateCameraIdOnHalOpen(cameraId);
    EXPECT_TRUE(service->awaitBlocked(Operation::SEND_COMMAND));
    gWhileLeaving = [&] {
        service->unblock(Operation::SEND_COMMAND);
        awaitThreads();
    };
    helper.reset();
    EXPECT_THAT(logged(), ElementsAre("D sendSessionRestartDoneToApp: App replied ",
                                      "D Calling destructor ~VelChiDesktopHelper"));
    service->unblock(Operation::SEND_COMMAND);
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
