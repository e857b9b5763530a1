#include <gmock/gmock.h>

#include <thread>

#include "HelperFixture.h"
#include "WaitsForLock.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string restartDone(const std::string& overrideId) {
    return R"(sendCommand 0 {"event":{"type":"sessionRestartDone"},"cameraIds":{"originalId":0,"overrideId":)" +
           overrideId + "}}";
}

class ASession : public ConnectedHelperFixture {
  protected:
    uint32_t open(uint32_t fwkId) {
        helper->updateCameraIdOnHalOpen(fwkId);
        return fwkId;
    }
    std::vector<std::string> messages() {
        awaitThreads();
        return service->calls(Operation::SEND_COMMAND);
    }
    void configureSubstitution() {
        send(
            R"({"imgsub-configure-stream":{"version":"1","image-width":64,"image-height":48,)"
            R"("hal-consumer-usage":-1,"hal-consumer-buffer-count":4,"hal-consumer-v4l2-format":"RAW_PRIVATE"}})");
        ASSERT_NE(helper->mImgSubHelper, nullptr);
        service->forgetCalls();
    }

    static constexpr char kAskForCamera0[] = R"({"get":{"what":"overrideId","originalId":0}})";
};

TEST_F(ASession, OpensTheRequiredCameraOrItsOwnWhenTheOverrideIsNotAllowed) {
    EXPECT_EQ(open(0), 4u);
    EXPECT_EQ(record(0).currentOverrideId, 4u);
    for (uint32_t id = 1; id < 16; ++id)
        EXPECT_EQ(open(id), id);
    helper->onHalClose(0);
    helper->setRequiredOverrideId(0, 2);
    EXPECT_EQ(open(0), 2u) << "a request for a closed camera is remembered";
    EXPECT_THAT(messages(), IsEmpty());
    EXPECT_THAT(logged(), IsEmpty());

    helper->onHalClose(0);
    record(0).overrideAllowed = false;
    helper->setRequiredOverrideId(0, 2);
    EXPECT_EQ(record(0).requiredOverrideId, 4u);
    record(0).restartPending = true;
    EXPECT_EQ(open(0), 0u);
    EXPECT_EQ(record(0).currentOverrideId, 0u);
    EXPECT_THAT(messages(), ElementsAre(restartDone("0")));
}

TEST_F(ASession, LeavesAnInvalidIdAlone) {
    EXPECT_EQ(open(16), 16u);
    helper->onHalClose(kNone);
    helper->setRequiredOverrideId(0, 16);
    helper->setRequiredOverrideId(16, 0);
    EXPECT_EQ(record(0).requiredOverrideId, 4u);
    EXPECT_THAT(logged(), ElementsAre("E updateCameraIdOnHalOpen: Invalid camera id 16",
                                      testing::MatchesRegex("E onHalClose:[0-9]+ Invalid camera id 65535")));
}

TEST_F(ASession, AsksForARestartOnceAndAnnouncesItAtEveryOpenUntilTheClose) {
    service->setReply(ClientType::CLIENT_CAMERA_SERVICE, "YES");
    open(0);
    helper->setRequiredOverrideId(0, 2);
    helper->setRequiredOverrideId(0, 2);
    EXPECT_EQ(record(0).requiredOverrideId, 2u);
    EXPECT_THAT(messages(), ElementsAre(R"(sendCommand 1 {"restartNeeded":{"cameraId":"0"}})"));
    EXPECT_THAT(logged(), ElementsAre("D triggerSessionRestart: CameraService replied YES"));
    helper->setRequiredOverrideId(0, 4);
    EXPECT_EQ(messages().size(), 1u) << "going back to the open camera needs no restart";

    record(0).requiredOverrideId = 2;
    service->forgetCalls();
    uint32_t fwkId = kNone;
    ASSERT_TRUE(helper->needsCameraIdSwitch(4, fwkId));
    EXPECT_EQ(open(0), 2u);
    EXPECT_THAT(messages(), ElementsAre(restartDone("2")));
    EXPECT_THAT(logged(), testing::Contains("D sendSessionRestartDoneToApp: App replied "));
    EXPECT_EQ(open(0), 2u);
    EXPECT_EQ(messages().size(), 2u);

    record(0).isDesktop = true;
    record(0).overrideAllowed = false;
    helper->onHalClose(0);
    EXPECT_EQ(record(0).currentOverrideId, kNone);
    EXPECT_EQ(record(0).requiredOverrideId, 4u);
    EXPECT_FALSE(record(0).restartPending);
    EXPECT_TRUE(record(0).isDesktop) << "a close keeps what the events have set";
    EXPECT_FALSE(record(0).overrideAllowed);
    open(0);
    EXPECT_EQ(messages().size(), 2u) << "a close ends the announcements";
}

// The application takes a message and answers late or never, and the message holds the link meanwhile. Before
// the answer it also asks something back, which needs the registry.
TEST_F(ASession, OpensAndClosesWithoutWaitingForAPeerThatDoesNotAnswer) {
    open(0);
    open(1);
    record(0).isDesktop = true;
    configureSubstitution();
    std::string talkedBack;
    service->setReply(ClientType::CLIENT_APP, [&](ClientType, const std::string&) {
        talkedBack = service->sendToCallback(kAskForCamera0).value_or("nobody");
        return "OK_APP";
    });
    service->block(Operation::SEND_COMMAND);
    record(0).restartPending = true;
    open(0);
    ASSERT_TRUE(service->awaitBlocked(Operation::SEND_COMMAND));

    helper->onHalClose(0);
    helper->onHalClose(1);
    EXPECT_EQ(record(0).currentOverrideId, kNone);
    EXPECT_EQ(record(1).currentOverrideId, kNone);
    EXPECT_EQ(helper->mImgSubHelper, nullptr);
    EXPECT_THAT(service->calls(Operation::SET_SURFACE), ElementsAre("setSurface 7 null"));
    service->unblock(Operation::SEND_COMMAND);
    awaitThreads();
    EXPECT_EQ(talkedBack, R"({"error":"Unknown"})") << "camera 0 is closed";
}

// What a close decides is decided at once: what arrives while it tears the substitution down is for the next
// open, and is answered meanwhile.
TEST_F(ASession, KeepsWhatArrivesDuringTheTeardownOfAClose) {
    open(0);
    record(0).isDesktop = true;
    record(0).requiredOverrideId = 3;
    configureSubstitution();
    service->block(Operation::SET_SURFACE);
    std::thread closer([&] { helper->onHalClose(0); });
    ASSERT_TRUE(service->awaitBlocked(Operation::SET_SURFACE));

    EXPECT_FALSE(isFree(DesktopHelperTestAccess::serviceLock(*helper))) << "the link was free for it";
    EXPECT_EQ(record(0).requiredOverrideId, 4u);
    EXPECT_EQ(helper->mImgSubHelper, nullptr);
    EXPECT_EQ(send(R"({"event":{"type":"cameraClosed","id":"0"},"general":{"originalId":0,"overrideId":2}})"),
              "OK_HAL");
    service->unblock(Operation::SET_SURFACE);
    closer.join();
    EXPECT_FALSE(record(0).isDesktop);
    EXPECT_EQ(open(0), 2u);
}

TEST_F(ASession, ClosesWithoutLookingForAService) {
    record(0).isDesktop = true;
    vel::host::clearLocalServices();
    helper->disconnectFromServiceLocked();
    helper->onHalClose(0);
    EXPECT_EQ(vel::host::localLookUpCount("default"), 0u);
}

}  // namespace
