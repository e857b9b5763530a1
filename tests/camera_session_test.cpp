#include <gmock/gmock.h>

#include <future>
#include <thread>

#include "HelperFixture.h"
#include "RepeatedActions.h"

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
    EXPECT_EQ(log.count("sendSessionRestartDoneToApp: App replied "), 1u);
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

// The link is busy with a message whose receiver will only answer after a command of its own, which needs the
// registry: the close must keep out of the registry while it waits for the link.
TEST_F(ASession, CloseWaitsForABusyLinkWithoutHoldingTheRegistry) {
    open(0);
    std::promise<std::string> talkedBack;
    service->setReply(ClientType::CLIENT_APP, [&](ClientType, const std::string&) {
        talkedBack.set_value(
            service->sendToCallback(R"({"get":{"what":"overrideId","originalId":0}})").value_or("nobody"));
        return std::string("OK_APP");
    });
    service->block(Operation::SEND_COMMAND);
    std::thread sender([&] { helper->sendSessionRestartDoneToApp(0, 2); });
    ASSERT_TRUE(service->awaitBlocked(Operation::SEND_COMMAND));

    std::future<void> closing = std::async(std::launch::async, [&] { helper->onHalClose(0); });
    EXPECT_EQ(closing.wait_for(std::chrono::milliseconds(30)), std::future_status::timeout);
    EXPECT_EQ(helper->getCurrentOverrideId(0), 4u) << "the registry answers meanwhile";
    service->unblock(Operation::SEND_COMMAND);
    sender.join();
    closing.get();
    EXPECT_EQ(talkedBack.get_future().get(), R"({"overrideId":4})");
    EXPECT_EQ(record(0).currentOverrideId, kNone);
}

// Messages follow one another with gaps far shorter than they are: a close that only looks now and then for a
// free link would let many of them pass.
TEST_F(ASession, CloseTakesItsTurnAmongMessagesThatKeepTheLinkBusy) {
    using namespace std::chrono_literals;
    constexpr int kCloses = 20;
    service->setReply(ClientType::CLIENT_APP, [](ClientType, const std::string&) {
        std::this_thread::sleep_for(5ms);  // the peer's own work
        return std::string();
    });
    std::atomic<int> sent{0};
    const auto sendOn = [&] {
        helper->setCommandTo(ClientType::CLIENT_APP, "{}");
        ++sent;
        std::this_thread::sleep_for(100us);  // the sender's
    };
    RepeatedActions requestsAndResults;
    requestsAndResults.add(sendOn);
    requestsAndResults.add(sendOn);
    int passed = 0;
    for (int i = 0; i < kCloses; ++i) {
        const int start = sent;
        EXPECT_TRUE(waitUntil([&] { return sent > start; }));
        const int before = sent;
        helper->onHalClose(0);
        passed += sent - before;
    }
    EXPECT_LT(passed, 3 * kCloses);
}

// Whatever the interleaving, the required id stays valid and a final close leaves the defaults.
TEST_F(ASession, KeepsARecordWholeUnderOpensClosesSwitchesAndRequests) {
    RepeatedActions others;
    others.add([&] { EXPECT_LT(open(0), 16u); });
    others.add([&] { helper->onHalClose(0); });
    others.add([&] {
        uint32_t fwkId = 0;
        (void)helper->needsCameraIdSwitch(2, fwkId);
    });
    others.add([&] { send(R"({"event":{"type":"cameraOpen","id":"0","isDesktop":true}})"); });
    for (uint32_t id = 0; id < 300; ++id)
        helper->setRequiredOverrideId(0, id % 16);
    others.stop();
    helper->onHalClose(0);
    EXPECT_EQ(record(0).currentOverrideId, kNone);
    EXPECT_EQ(record(0).requiredOverrideId, 4u);
    EXPECT_FALSE(record(0).restartPending);
}

}  // namespace
