#include <gtest/gtest.h>
#include <hidl/HidlTransportSupport.h>
#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>
#include <signal.h>
#include <atomic>
#include <iostream>
#include <mutex>
#include <optional>
#include <thread>

#include "ChildProcess.h"
#include "DesktopBusNames.h"
#include "PrivateBus.h"
#include "Programs.h"
#include "WaitUntil.h"

using android::sp;
using android::wp;
using vel::sim::ChildProcess;
using vel::sim::PrivateBus;
using IBase = android::hidl::base::V1_0::IBase;
using korvanta::hardware::camera::desktop::V1_0::ICameraDesktopCallback;
using korvanta::hardware::camera::desktop::V2_0::ClientType;
using korvanta::hardware::camera::desktop::V2_0::ICameraDesktop;

namespace {

struct Outcome {
    bool isOk = false;
    bool isDead = false;
    std::optional<std::string> reply;  // empty: the reply function was not called
};

std::string bytesOf(const android::hardware::hidl_string& text) {
    return {text.c_str(), text.size()};
}

Outcome send(const sp<ICameraDesktop>& service, ClientType type, const std::string& command) {
    Outcome outcome;
    const auto status = service->sendCommand(
        type, command, [&](const android::hardware::hidl_string& reply) { outcome.reply = bytesOf(reply); });
    outcome.isDead = status.isDeadObject();
    outcome.isOk = status.isOk();
    return outcome;
}

void say(const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

struct SayingRecipient : public android::hardware::hidl_death_recipient {
    void serviceDied(uint64_t, const wp<IBase>&) override { say("died"); }
};

// Answers each command with the command itself, save "hang", which it says and never answers.
class EchoCallback : public ICameraDesktopCallback {
    android::hardware::Return<void> onCommand(const android::hardware::hidl_string& command,
                                              onCommand_cb _hidl_cb) override {
        if (bytesOf(command) == "hang") say("hanging");
        while (bytesOf(command) == "hang")
            pause();
        _hidl_cb(command);
        return android::hardware::Void();
    }
};

sp<ICameraDesktop> lookUp() {
    return ICameraDesktop::tryGetService("default", false);
}

// A process of its own at the other end. It obeys the lines of its input and says what came of them:
//
//   find       "found" or "null"
//   register   registers a callback for the application; "registered"
//   link       "linked"; when the service dies later, "died"
//   hang       sends a command that is never answered to the application from a thread of its own: "sending",
//              then "sent ok", "sent dead" or "sent failed"
//   exit       leaves main() at once
class Peer {
  public:
    // False when the process is to end.
    bool obey(const std::string& verb) {
        if (verb == "find") say((mService = lookUp()) != nullptr ? "found" : "null");
        if (verb == "register") say(registerCallback() ? "registered" : "not registered");
        if (verb == "link") say(mService->linkToDeath(mRecipient, 0) ? "linked" : "not linked");
        if (verb == "hang") std::thread(sendHang, mService).detach();
        return verb != "exit";
    }

  private:
    bool registerCallback() {
        return mService->registerCallback(ClientType::CLIENT_APP, new EchoCallback).isOk();
    }

    static void sendHang(const sp<ICameraDesktop>& service) {
        say("sending");
        const Outcome outcome = send(service, ClientType::CLIENT_APP, "hang");
        say(outcome.isOk ? "sent ok" : outcome.isDead ? "sent dead" : "sent failed");
    }

    sp<ICameraDesktop> mService;
    const sp<SayingRecipient> mRecipient = new SayingRecipient;
};

std::unique_ptr<ChildProcess> startPeer(const std::string& busAddress) {
    return startProgram({"/proc/self/exe", "--peer"}, busAddress);
}

testing::AssertionResult obeys(ChildProcess& peer, const std::string& line, const std::string& expected) {
    peer.writeLine(line);
    if (peer.waitForLine(expected)) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "\"" << line << "\" did not lead to \"" << expected << "\"";
}

class RecordingRecipient : public android::hardware::hidl_death_recipient {
  public:
    struct Notice {
        uint64_t cookie;
        wp<IBase> who;
        std::thread::id thread;
    };
    void serviceDied(uint64_t cookie, const wp<IBase>& who) override {
        std::lock_guard<std::mutex> taken(callersLock);
        std::lock_guard<std::mutex> lock(mLock);
        mNotices.push_back({cookie, who, std::this_thread::get_id()});
    }
    std::vector<Notice> notices() const {
        std::lock_guard<std::mutex> lock(mLock);
        return mNotices;
    }
    std::mutex callersLock;  // taken before anything is recorded, as the library's own recipient does

  private:
    mutable std::mutex mLock;
    std::vector<Notice> mNotices;
};

// One bus for the process, which keeps its connection to it.
const std::string& busAddress() {
    static const PrivateBus bus;
    return bus.address();
}

// A service on a private bus, with this process as the camera HAL.
class ADesktopService : public testing::Test {
  protected:
    static void SetUpTestSuite() { setenv(vel::desktop_bus::kAddressVariable, busAddress().c_str(), 1); }
    void SetUp() override { restartService(); }
    void TearDown() override { endService(); }

    void restartService() {
        endService();
        mProcess = startService(busAddress());
        ASSERT_TRUE(waitUntil([this] { return (mService = lookUp()) != nullptr; }));
    }

    // Returns when the bus has noticed, too.
    void endService() {
        mProcess.reset();
        ASSERT_TRUE(waitUntil([] { return lookUp() == nullptr; }));
    }

    std::unique_ptr<ChildProcess> startApp() {
        auto app = startPeer(busAddress());
        EXPECT_TRUE(obeys(*app, "find", "found"));
        EXPECT_TRUE(obeys(*app, "register", "registered"));
        return app;
    }

    Outcome sendToApp(const std::string& command) { return send(mService, ClientType::CLIENT_APP, command); }

    std::unique_ptr<ChildProcess> mProcess;
    sp<ICameraDesktop> mService;
};

TEST_F(ADesktopService, CarriesTextsUnchangedThereAndBack) {
    const auto app = startApp();
    std::string everyByte(1 << 20, '\0');
    for (size_t i = 0; i < everyByte.size(); ++i)
        everyByte[i] = static_cast<char>(i * 131 + i / 256);
    const std::string texts[] = {
        "",
        "a\u00e4\u20ac\U0001F600",
        std::string("ab\0cd", 5),
        "\xed\xa0\x80",          // no character
        std::string(8192, 'x'),  // the longest string
        std::string(8193, 'x'),  // the shortest memory file
        everyByte,
    };
    for (const std::string& text : texts)
        EXPECT_TRUE(sendToApp(text).reply == text) << text.substr(0, 40);

    const Outcome tooLong = sendToApp(std::string((64u << 20) + 1, 'x'));
    EXPECT_FALSE(tooLong.isOk || tooLong.isDead || tooLong.reply);
    EXPECT_EQ(sendToApp("still there").reply, "still there");
}

TEST_F(ADesktopService, PeerKilledDuringACallFailsItAndMayComeBack) {
    auto app = startApp();
    std::thread killer([&] {
        EXPECT_TRUE(app->waitForLine("hanging"));
        EXPECT_EQ(sendToApp("another").reply, "another") << "other calls pass the one that hangs";
        app->kill(SIGKILL);
    });
    const Outcome outcome = sendToApp("hang");
    killer.join();
    EXPECT_FALSE(outcome.isOk || outcome.reply);
    EXPECT_FALSE(outcome.isDead) << "the service itself lives";
    EXPECT_TRUE(mProcess->waitForLine("died callback APP dropped"));
    EXPECT_FALSE(sendToApp("{}").isOk);
    EXPECT_TRUE(mProcess->waitForLine("APP has not registered"));

    app = startApp();
    EXPECT_EQ(sendToApp("again").reply, "again");
}

TEST_F(ADesktopService, KilledDuringACallFailsItAndTellsARecipientThatNeedsTheCallersLock) {
    const auto app = startApp();
    const sp<RecordingRecipient> recipient = new RecordingRecipient;
    const sp<RecordingRecipient> withoutProxy = new RecordingRecipient;
    for (const uint64_t cookie : {7, 8, 9})
        ASSERT_TRUE(mService->linkToDeath(recipient, cookie));
    EXPECT_TRUE(mService->unlinkToDeath(recipient)) << "takes back the newest";
    ASSERT_TRUE(lookUp()->linkToDeath(withoutProxy, 4)) << "the proxy goes at the end of this line";
    std::thread killer([&] {
        EXPECT_TRUE(app->waitForLine("hanging"));
        mProcess->kill(SIGKILL);
    });
    {
        std::lock_guard<std::mutex> lock(recipient->callersLock);
        const Outcome outcome = sendToApp("hang");
        EXPECT_TRUE(outcome.isDead);
        EXPECT_FALSE(outcome.reply);
        EXPECT_EQ(lookUp(), nullptr) << "calls get through while the recipient waits for the lock";
        EXPECT_TRUE(recipient->notices().empty());
    }
    killer.join();
    ASSERT_TRUE(waitUntil([&] { return recipient->notices().size() >= 2; }));
    for (const size_t notice : {0, 1}) {
        EXPECT_EQ(recipient->notices()[notice].cookie, 7 + notice);
        EXPECT_EQ(recipient->notices()[notice].who.promote(), sp<IBase>(mService));
        EXPECT_NE(recipient->notices()[notice].thread, std::this_thread::get_id());
    }
    EXPECT_TRUE(withoutProxy->notices().empty());
}

TEST_F(ADesktopService, ThatDiedStaysDeadForItsProxiesWhenAnotherTakesItsPlace) {
    const sp<RecordingRecipient> late = new RecordingRecipient;
    const sp<ICameraDesktop> dead = mService;
    EXPECT_TRUE(android::hardware::interfacesEqual(lookUp(), dead));
    restartService();
    EXPECT_TRUE(send(dead, ClientType::CLIENT_APP, "{}").isDead);
    EXPECT_FALSE(android::hardware::interfacesEqual(dead, mService));
    EXPECT_TRUE(dead->linkToDeath(late, 9));
    EXPECT_TRUE(waitUntil([&] { return late->notices().size() == 1; })) << "told at once";
    EXPECT_FALSE(dead->unlinkToDeath(late));
}

TEST_F(ADesktopService, KeepsACallbackUntilAnotherTakesItsPlaceOrItDies) {
    wp<EchoCallback> registered[2];
    for (wp<EchoCallback>& each : registered) {
        const sp<EchoCallback> callback = new EchoCallback;
        each = callback;
        ASSERT_TRUE(mService->registerCallback(ClientType::CLIENT_CAMERA_HAL, callback).isOk());
    }
    EXPECT_TRUE(waitUntil([&] { return registered[0].promote() == nullptr; }));
    EXPECT_EQ(send(mService, ClientType::CLIENT_CAMERA_HAL, "kept").reply, "kept");
    mProcess->kill(SIGKILL);
    EXPECT_TRUE(waitUntil([&] { return registered[1].promote() == nullptr; }));
}

TEST_F(ADesktopService, MayDieAgainAndAgainUnderLoad) {
    const sp<EchoCallback> hal = new EchoCallback;
    std::atomic<bool> ended{false};
    std::atomic<int> right{0}, wrong{0};
    std::vector<std::thread> senders;
    for (int sender = 0; sender < 4; ++sender) {
        senders.emplace_back([&, text = std::string(sender * 6000, 'x')] {
            while (!ended) {
                const sp<ICameraDesktop> service = lookUp();
                if (service == nullptr) continue;
                const Outcome outcome = send(service, ClientType::CLIENT_CAMERA_HAL, text);
                if (outcome.isOk) ++(outcome.reply == text ? right : wrong);
            }
        });
    }
    for (int death = 0; death < 5; ++death) {
        ASSERT_TRUE(mService->registerCallback(ClientType::CLIENT_CAMERA_HAL, hal).isOk());
        const int before = right;
        EXPECT_TRUE(waitUntil([&] { return right >= before + 20; }));
        restartService();
    }
    ended = true;
    for (std::thread& sender : senders)
        sender.join();
    EXPECT_EQ(wrong, 0);
}

TEST_F(ADesktopService, LeavesTheBusToTheFirstOfTwo) {
    EXPECT_EQ(startProgram({"desktop_service"}, busAddress())->wait(), 1);
    EXPECT_TRUE(mService->ping().isOk());
}

TEST_F(ADesktopService, ProcessMayExitWithCallsInFlightBothWays) {
    auto app = startApp();
    auto caller = startPeer(busAddress());
    ASSERT_TRUE(obeys(*caller, "find", "found"));
    ASSERT_TRUE(obeys(*caller, "hang", "sending"));
    ASSERT_TRUE(app->waitForLine("hanging"));
    caller->writeLine("exit");
    EXPECT_EQ(caller->wait(), 0) << "with an outgoing call";
    app->writeLine("exit");
    EXPECT_EQ(app->wait(), 0) << "with an incoming one";
    EXPECT_TRUE(mService->ping().isOk());
}

TEST(ADesktopBus, ThatDiesFailsCallsAndTellsDeaths) {
    PrivateBus bus;
    const auto service = startService(bus.address());
    const auto peer = startPeer(bus.address());
    ASSERT_TRUE(obeys(*peer, "find", "found"));
    ASSERT_TRUE(obeys(*peer, "register", "registered"));
    ASSERT_TRUE(obeys(*peer, "link", "linked"));
    ASSERT_TRUE(obeys(*peer, "hang", "hanging"));
    bus.kill();
    EXPECT_NE(service->wait(), 0) << "the service says that it cannot go on";
    EXPECT_TRUE(peer->waitForLine("sent dead"));
    EXPECT_TRUE(peer->waitForLine("died"));
    EXPECT_TRUE(obeys(*peer, "find", "null"));
}

TEST(ADesktopBus, ThatStopsLeavesNobodyWaiting) {
    PrivateBus bus;
    const auto service = startService(bus.address());
    const auto peer = startPeer(bus.address());
    ASSERT_TRUE(obeys(*peer, "find", "found"));
    bus.suspend();
    EXPECT_TRUE(obeys(*peer, "find", "null"));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::string(argv[1]) == "--peer") {
        static Peer& peer = *new Peer;  // its threads may outlast main()
        for (std::string line; std::getline(std::cin, line) && peer.obey(line);) {
        }
        return EXIT_SUCCESS;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
