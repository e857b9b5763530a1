// Real processes on a private bus: the desktop service, its clients, and the buffer queues between them. What
// crosses a queue's channel is tested in one process.

#include <gtest/gtest.h>
#include <gui/bufferqueue/1.0/H2BGraphicBufferProducer.h>
#include <hidl/HidlTransportSupport.h>
#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>
#include <signal.h>
#include <system/window.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <iostream>
#include <mutex>
#include <optional>
#include <thread>

#include "ChildProcess.h"
#include "ConsumerQueue.h"
#include "DesktopBusNames.h"
#include "PrivateBus.h"
#include "Programs.h"
#include "WaitUntil.h"

using namespace android;
using android::hardware::graphics::bufferqueue::V1_0::utils::H2BGraphicBufferProducer;
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

std::string bytesOf(const hardware::hidl_string& text) {
    return {text.c_str(), text.size()};
}

Outcome send(const sp<ICameraDesktop>& service, ClientType type, const std::string& command) {
    Outcome outcome;
    const auto status = service->sendCommand(
        type, command, [&](const hardware::hidl_string& reply) { outcome.reply = bytesOf(reply); });
    outcome.isDead = status.isDeadObject();
    outcome.isOk = status.isOk();
    return outcome;
}

void say(const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

struct SayingRecipient : public hardware::hidl_death_recipient {
    void serviceDied(uint64_t, const wp<IBase>&) override { say("died"); }
};

// Answers each command with the command itself, save "hang", which it says and never answers.
class EchoCallback : public ICameraDesktopCallback {
    hardware::Return<void> onCommand(const hardware::hidl_string& command, onCommand_cb _hidl_cb) override {
        if (bytesOf(command) == "hang") say("hanging");
        while (bytesOf(command) == "hang")
            pause();
        _hidl_cb(command);
        return hardware::Void();
    }
};

sp<ICameraDesktop> lookUp() {
    return ICameraDesktop::tryGetService("default", false);
}

constexpr ClientType kType = ClientType::CLIENT_IMG_SUB;
constexpr int kApi = NATIVE_WINDOW_API_CAMERA;

using Producer = IGraphicBufferProducer;
using LocalProducer = TWGraphicBufferProducer<HGraphicBufferProducer>;

sp<Producer> borrow(const sp<ICameraDesktop>& service) {
    const sp<HGraphicBufferProducer> surface = service->getSurface(kType).withDefault(nullptr);
    return surface != nullptr ? new H2BGraphicBufferProducer(surface) : nullptr;
}

status_t connect(const sp<Producer>& producer) {
    Producer::QueueBufferOutput output;
    return producer->connect(nullptr, kApi, false, &output);
}

status_t dequeue(const sp<Producer>& producer) {
    int slot = -1;
    sp<Fence> fence;
    return producer->dequeueBuffer(&slot, &fence, 320, 240, PIXEL_FORMAT_RGBA_8888,
                                   GRALLOC_USAGE_SW_WRITE_OFTEN, nullptr, nullptr);
}

// A process of its own at the other end. It obeys the lines of its input and says what came of them:
//
//   find       "found" or "null"
//   register   registers a callback for the application; "registered"
//   link       "linked"; when the service dies later, "died"
//   hang       sends a command that is never answered to the application from a thread of its own: "sending",
//              then "sent ok", "sent dead" or "sent failed"
//   own        sets a surface with a queue of two slots behind it; "owned"
//   disown     sets no surface instead; "disowned"
//   take <n>   connects to the surface and dequeues n slots: "took", and each status
//   exit       leaves main() at once
class Peer {
  public:
    // False when the process is to end.
    bool obey(const std::string& line) {
        if (line == "find") say((mService = lookUp()) != nullptr ? "found" : "null");
        if (line == "register") say(registerCallback() ? "registered" : "not registered");
        if (line == "link") say(mService->linkToDeath(mRecipient, 0) ? "linked" : "not linked");
        if (line == "hang") std::thread(sendHang, mService).detach();
        if (line == "own") say(mService->setSurface(kType, mQueue.surface).isOk() ? "owned" : "not owned");
        if (line == "disown") say(mService->setSurface(kType, nullptr).isOk() ? "disowned" : "still owned");
        if (line.rfind("take ", 0) == 0) take(std::stoi(line.substr(5)));
        return line != "exit";
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

    void take(int count) {
        mProducer = borrow(mService);
        std::string statuses = std::to_string(connect(mProducer));
        for (int i = 0; i < count; ++i)
            statuses += ' ' + std::to_string(dequeue(mProducer));
        say("took " + statuses);
    }

    sp<ICameraDesktop> mService = lookUp();
    const sp<SayingRecipient> mRecipient = new SayingRecipient;
    const ConsumerQueue mQueue;
    sp<Producer> mProducer;
};

std::unique_ptr<ChildProcess> startPeer(const PrivateBus& bus) {
    return startProgram({"/proc/self/exe", "--peer"}, bus.address());
}

testing::AssertionResult obeys(ChildProcess& peer, const std::string& line, const std::string& expected) {
    peer.writeLine(line);
    if (peer.waitForLine(expected)) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "\"" << line << "\" did not lead to \"" << expected << "\"";
}

class RecordingRecipient : public hardware::hidl_death_recipient {
  public:
    void serviceDied(uint64_t cookie, const wp<IBase>&) override {
        std::lock_guard<std::mutex> taken(callersLock);
        std::lock_guard<std::mutex> lock(mLock);
        mCookies.push_back(cookie);
    }
    std::vector<uint64_t> cookies() const {
        std::lock_guard<std::mutex> lock(mLock);
        return mCookies;
    }
    std::mutex callersLock;  // taken before anything is recorded, as the library's own recipient does

  private:
    mutable std::mutex mLock;
    std::vector<uint64_t> mCookies;  // of each notice
};

// A service on a private bus, with this process as the camera HAL.
class ADesktopService : public testing::Test {
  protected:
    void SetUp() override {
        setenv(vel::desktop_bus::kAddressVariable, mBus.address().c_str(), 1);
        startAndFindService();
    }

    void startAndFindService() {
        mProcess = startService(mBus.address());
        // The connection to the bus of the test before ends in its own time.
        ASSERT_TRUE(waitUntil([this] { return (mService = lookUp()) != nullptr; }));
    }

    void restartService() {
        mProcess.reset();
        ASSERT_TRUE(waitUntil([] { return lookUp() == nullptr; })) << "the bus never noticed";
        startAndFindService();
    }

    std::unique_ptr<ChildProcess> startApp() {
        auto app = startPeer(mBus);
        EXPECT_TRUE(obeys(*app, "register", "registered"));
        return app;
    }

    Outcome sendToApp(const std::string& command) { return send(mService, ClientType::CLIENT_APP, command); }

    PrivateBus mBus;
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
        EXPECT_TRUE(recipient->cookies().empty());
    }
    killer.join();
    EXPECT_TRUE(waitUntil([&] { return recipient->cookies() == std::vector<uint64_t>{7, 8}; }));
    EXPECT_TRUE(withoutProxy->cookies().empty());
}

TEST_F(ADesktopService, ThatDiedStaysDeadForItsProxiesWhenAnotherTakesItsPlace) {
    const sp<RecordingRecipient> late = new RecordingRecipient;
    const sp<ICameraDesktop> dead = mService;
    EXPECT_TRUE(hardware::interfacesEqual(lookUp(), dead));
    restartService();
    EXPECT_TRUE(send(dead, ClientType::CLIENT_APP, "{}").isDead);
    EXPECT_FALSE(hardware::interfacesEqual(dead, mService));
    EXPECT_TRUE(dead->linkToDeath(late, 9));
    EXPECT_TRUE(waitUntil([&] { return late->cookies().size() == 1; })) << "told at once";
    EXPECT_FALSE(dead->unlinkToDeath(late));
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
    EXPECT_EQ(startProgram({"desktop_service"}, mBus.address())->wait(), 1);
    EXPECT_TRUE(mService->ping().isOk());
}

TEST_F(ADesktopService, ProcessMayExitWithCallsInFlightBothWays) {
    auto app = startApp();
    auto caller = startPeer(mBus);
    ASSERT_TRUE(obeys(*caller, "hang", "sending"));
    ASSERT_TRUE(app->waitForLine("hanging"));
    caller->writeLine("exit");
    EXPECT_EQ(caller->wait(), 0) << "with an outgoing call";
    app->writeLine("exit");
    EXPECT_EQ(app->wait(), 0) << "with an incoming one";
    EXPECT_TRUE(mService->ping().isOk());
}

TEST_F(ADesktopService, EndsWithItsBusAndEveryCallToo) {
    const auto app = startApp();
    ASSERT_TRUE(obeys(*app, "link", "linked"));
    ASSERT_TRUE(obeys(*app, "hang", "hanging"));
    mBus.kill();
    EXPECT_NE(mProcess->wait(), 0) << "the service says that it cannot go on";
    EXPECT_TRUE(app->waitForLine("sent dead"));
    EXPECT_TRUE(app->waitForLine("died"));
    EXPECT_TRUE(obeys(*app, "find", "null"));
}

TEST_F(ADesktopService, IsNotWaitedForWhenItsBusStops) {
    const auto peer = startPeer(mBus);
    ASSERT_TRUE(obeys(*peer, "find", "found"));
    mBus.suspend();
    EXPECT_TRUE(obeys(*peer, "find", "null"));
}

// --- Buffer queues ---

using AQueue = ADesktopService;

TEST_F(AQueue, EndsABlockedDequeueWithItsProcessOrTheBus) {
    for (const bool busDies : {false, true}) {
        const auto peer = startPeer(mBus);
        ASSERT_TRUE(obeys(*peer, "own", "owned"));
        const sp<Producer> producer = borrow(mService);
        ASSERT_EQ(connect(producer), OK);
        for (int taken = 0; taken < 2; ++taken)
            ASSERT_EQ(dequeue(producer), Producer::BUFFER_NEEDS_REALLOCATION);
        auto dequeued = std::async(std::launch::async, [&] { return dequeue(producer); });
        ASSERT_EQ(dequeued.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
        if (busDies) {
            mBus.kill();
        } else {
            peer->kill(SIGKILL);
        }
        EXPECT_EQ(dequeued.get(), DEAD_OBJECT);
        EXPECT_EQ(producer->disconnect(kApi), DEAD_OBJECT) << "and so does every later call";
        if (!busDies) {
            ASSERT_TRUE(mProcess->waitForLine("died surface IMG_SUB dropped"));
            EXPECT_EQ(borrow(mService), nullptr) << "the queues of a dead process are gone";
        }
    }
}

// Counts dequeues.
struct CountingProducer : LocalProducer {
    using LocalProducer::LocalProducer;
    hardware::Return<void> dequeueBuffer(uint32_t width, uint32_t height,
                                         hardware::graphics::common::V1_0::PixelFormat format, uint32_t usage,
                                         bool getFrameTimestamps, dequeueBuffer_cb _hidl_cb) override {
        ++begun;
        auto result =
            LocalProducer::dequeueBuffer(width, height, format, usage, getFrameTimestamps, _hidl_cb);
        ++ended;
        return result;
    }
    std::atomic<int> begun{0}, ended{0};
};

TEST_F(AQueue, ThatDiesFreesWhatItHeld) {
    const ConsumerQueue local;
    for (const bool waiting : {false, true}) {
        const sp<CountingProducer> surface = new CountingProducer(local.producer);
        ASSERT_TRUE(mService->setSurface(kType, surface).isOk());
        const auto peer = startPeer(mBus);
        peer->writeLine(waiting ? "take 3" : "take 2");  // of the two slots that there are
        ASSERT_TRUE(waitUntil([&] { return surface->begun == (waiting ? 3 : 2); }));
        if (!waiting) {
            EXPECT_TRUE(peer->waitForLine("took 0 1 1"));
        }
        peer->kill(SIGKILL);
        ASSERT_TRUE(waitUntil([&] { return surface->ended == surface->begun; })) << "nobody waits for ever";
        ASSERT_TRUE(waitUntil([&] { return connect(local.producer) == OK; }));
        local.producer->setDequeueTimeout(0);
        EXPECT_EQ(dequeue(local.producer), Producer::BUFFER_NEEDS_REALLOCATION);
        EXPECT_EQ(dequeue(local.producer), Producer::BUFFER_NEEDS_REALLOCATION);
        EXPECT_EQ(dequeue(local.producer), TIMED_OUT);
        local.producer->setDequeueTimeout(-1);
        EXPECT_EQ(local.producer->disconnect(kApi), OK);
    }
    EXPECT_TRUE(obeys(*startPeer(mBus), "take 1", "took 0 1")) << "another process may follow";
}

TEST_F(AQueue, KeepsItsIdentity) {
    auto peer = startPeer(mBus);
    ConsumerQueue local;
    const wp<HGraphicBufferProducer> weak = local.surface;
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(mService->setSurface(kType, local.surface).isOk());
        EXPECT_TRUE(obeys(*peer, "take 0", "took " + std::to_string(round == 0 ? OK : BAD_VALUE)));
        EXPECT_EQ(mService->getSurface(kType).withDefault(nullptr).get(), local.surface.get());
        EXPECT_EQ(local.producer->disconnect(kApi, Producer::DisconnectMode::AllLocal), OK)
            << "leaves the peer's connection alone";
    }
    ASSERT_TRUE(mService->setSurface(kType, nullptr).isOk());
    EXPECT_EQ(mService->getSurface(kType).withDefault(nullptr), nullptr);
    local.surface = nullptr;
    EXPECT_NE(weak.promote(), nullptr) << "the peer still holds it";
    peer->kill(SIGKILL);
    EXPECT_TRUE(waitUntil([&] { return weak.promote() == nullptr; }));

    peer = startPeer(mBus);
    ASSERT_TRUE(obeys(*peer, "own", "owned"));
    const sp<HGraphicBufferProducer> one = mService->getSurface(kType).withDefault(nullptr);
    const sp<HGraphicBufferProducer> other = mService->getSurface(kType).withDefault(nullptr);
    ASSERT_NE(one, nullptr);
    EXPECT_TRUE(one->isRemote());
    EXPECT_TRUE(hardware::interfacesEqual(one, other));
    ASSERT_TRUE(obeys(*peer, "disown", "disowned"));
    EXPECT_TRUE(one->ping().isOk()) << "a proxy keeps its object";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::string(argv[1]) == "--peer") {
        static Peer& peer = *new Peer;  // its threads, and the bus's, may outlast main()
        for (std::string line; std::getline(std::cin, line) && peer.obey(line);) {
        }
        return EXIT_SUCCESS;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
