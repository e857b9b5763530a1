#include <fcntl.h>
#include <gtest/gtest.h>
#include <hidl/HidlTransportSupport.h>
#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <iostream>
#include <mutex>
#include <optional>
#include <thread>

#include <sdbus-c++/sdbus-c++.h>
#include <systemd/sd-bus.h>

#include "ChildProcess.h"
#include "DesktopBusNames.h"
#include "NextDefinition.h"
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

using vel::desktop_bus::kAddressVariable;

std::atomic<int> gBusAttempts{0};

}  // namespace

// In place of the bus library's, which is called for each attempt to reach a bus.
extern "C" int sd_bus_start(sd_bus* bus) {
    ++gBusAttempts;
    return nextDefinition<decltype(sd_bus_start)>(__func__)(bus);
}

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

// A callback that answers each command with what the function makes of it.
class FunctionCallback : public ICameraDesktopCallback {
  public:
    using Answer = std::function<std::string(const std::string& command)>;
    explicit FunctionCallback(Answer answer) : mAnswer(std::move(answer)) {}

    android::hardware::Return<void> onCommand(const android::hardware::hidl_string& command,
                                              onCommand_cb _hidl_cb) override {
        _hidl_cb(mAnswer(bytesOf(command)));
        return android::hardware::Void();
    }

  private:
    const Answer mAnswer;
};

void say(const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

struct SayingRecipient : public android::hardware::hidl_death_recipient {
    void serviceDied(uint64_t, const wp<IBase>&) override { say("died"); }
};

std::string answer(const std::string& command) {
    if (command != "hang") return command;
    say("hanging");
    for (;;)
        pause();
}

// A process of its own at the other end. It obeys the lines of its input and says what came of them:
//
//   find               "found" or "null"
//   register           registers a callback for the application; "registered"
//   link               "linked"; when the service dies later, "died"
//   send <text>        sends to the application from a thread of its own: "sending", then "sent ok",
//                      "sent dead" or "sent failed"
//   attempts <n>       looks for the service n times: "attempts", and how often the bus was tried meanwhile
//   exit               leaves main() at once
//
// The callback answers a command with the command itself, save "hang", which it says and never answers.
class Peer {
  public:
    // False when the process is to end.
    bool obey(const std::string& line) {
        const std::string verb = line.substr(0, line.find(' '));
        const std::string rest = verb.size() < line.size() ? line.substr(verb.size() + 1) : "";
        if (verb == "find") find();
        if (verb == "register") registerCallback();
        if (verb == "link") say(mService->linkToDeath(mRecipient, 0) ? "linked" : "not linked");
        if (verb == "send") sendFromThread(rest);
        if (verb == "attempts") countAttempts(std::stoi(rest));
        return verb != "exit";
    }

  private:
    void find() {
        mService = ICameraDesktop::tryGetService("default", false);
        say(mService != nullptr ? "found" : "null");
    }

    void registerCallback() {
        const bool done = mService->registerCallback(ClientType::CLIENT_APP, mCallback).isOk();
        say(done ? "registered" : "not registered");
    }

    void countAttempts(int lookUps) {
        gBusAttempts = 0;
        for (int i = 0; i < lookUps; ++i)
            (void)ICameraDesktop::tryGetService("default", false);
        say("attempts " + std::to_string(gBusAttempts));
    }

    void sendFromThread(const std::string& text) {
        std::thread([service = mService, text] {
            say("sending");
            const Outcome outcome = send(service, ClientType::CLIENT_APP, text);
            say(outcome.isOk ? "sent ok" : outcome.isDead ? "sent dead" : "sent failed");
        }).detach();
    }

    sp<ICameraDesktop> mService;
    const sp<ICameraDesktopCallback> mCallback = new FunctionCallback(answer);
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

sp<ICameraDesktop> lookUp() {
    return ICameraDesktop::tryGetService("default", false);
}

class RecordingRecipient : public android::hardware::hidl_death_recipient {
  public:
    struct Notice {
        uint64_t cookie;
        wp<IBase> who;
        std::thread::id thread;
    };
    // Takes the lock, as the library's own recipient does, before it records.
    explicit RecordingRecipient(std::mutex* lock = nullptr) : mCallersLock(lock) {}

    void serviceDied(uint64_t cookie, const wp<IBase>& who) override {
        if (mCallersLock != nullptr) std::lock_guard<std::mutex> taken(*mCallersLock);
        std::lock_guard<std::mutex> lock(mLock);
        mNotices.push_back({cookie, who, std::this_thread::get_id()});
    }
    std::vector<Notice> notices() const {
        std::lock_guard<std::mutex> lock(mLock);
        return mNotices;
    }

  private:
    std::mutex* const mCallersLock;
    mutable std::mutex mLock;
    std::vector<Notice> mNotices;
};

// A service on a private bus, with this process as the camera HAL.
class ADesktopService : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        sBus = std::make_unique<PrivateBus>();
        setenv(kAddressVariable, sBus->address().c_str(), 1);
    }
    static void TearDownTestSuite() { sBus.reset(); }

    void SetUp() override { restartService(); }
    void TearDown() override { endService(); }

    void restartService() {
        endService();
        mProcess = startService(sBus->address());
        ASSERT_TRUE(waitUntil([this] { return (mService = lookUp()) != nullptr; }));
    }

    // Returns when the bus has noticed, too.
    void endService() {
        mProcess.reset();
        ASSERT_TRUE(waitUntil([] { return lookUp() == nullptr; }));
    }

    std::unique_ptr<ChildProcess> startApp() {
        auto app = startPeer(sBus->address());
        EXPECT_TRUE(obeys(*app, "find", "found"));
        EXPECT_TRUE(obeys(*app, "register", "registered"));
        return app;
    }

    Outcome sendToApp(const std::string& command) { return send(mService, ClientType::CLIENT_APP, command); }

    static std::unique_ptr<PrivateBus> sBus;
    std::unique_ptr<ChildProcess> mProcess;
    sp<ICameraDesktop> mService;
};

std::unique_ptr<PrivateBus> ADesktopService::sBus;

TEST_F(ADesktopService, CarriesTextsUnchangedThereAndBack) {
    const auto app = startApp();
    std::string everyByte(1 << 20, '\0');
    for (size_t i = 0; i < everyByte.size(); ++i)
        everyByte[i] = static_cast<char>(i * 131 + i / 256);
    const std::string texts[] = {
        "",
        "a\u00e4\u20ac\U0001F600",
        std::string("ab\0cd", 5),
        // What the bus does not take for a string: a lone continuation byte, a character cut off, an overlong
        // form, a surrogate, a non-character and a number beyond the last character.
        "a\x80",
        "a\xe2\x82",
        "\xc0\xaf",
        "\xed\xa0\x80",
        "\xef\xbf\xbe",
        "\xf4\x90\x80\x80",
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
    std::mutex serviceLock;
    const sp<RecordingRecipient> recipient = new RecordingRecipient(&serviceLock);
    ASSERT_TRUE(mService->linkToDeath(recipient, 7));
    std::thread killer([&] {
        EXPECT_TRUE(app->waitForLine("hanging"));
        mProcess->kill(SIGKILL);
    });
    {
        std::lock_guard<std::mutex> lock(serviceLock);
        const Outcome outcome = sendToApp("hang");
        EXPECT_TRUE(outcome.isDead);
        EXPECT_FALSE(outcome.reply);
        EXPECT_EQ(lookUp(), nullptr) << "calls get through while the recipient waits for the lock";
        EXPECT_TRUE(recipient->notices().empty());
    }
    killer.join();
    ASSERT_TRUE(waitUntil([&] { return !recipient->notices().empty(); }));
    const RecordingRecipient::Notice notice = recipient->notices()[0];
    EXPECT_EQ(notice.cookie, 7u);
    EXPECT_EQ(notice.who.promote(), sp<IBase>(mService));
    EXPECT_NE(notice.thread, std::this_thread::get_id());
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
    const auto app = startApp();
    EXPECT_EQ(sendToApp("again").reply, "again");
}

TEST_F(ADesktopService, TellsEachDeathRegistrationThatIsStillWanted) {
    const sp<RecordingRecipient> twice = new RecordingRecipient;
    const sp<RecordingRecipient> withoutProxy = new RecordingRecipient;
    for (const uint64_t cookie : {1, 2, 3})
        ASSERT_TRUE(mService->linkToDeath(twice, cookie));
    EXPECT_TRUE(mService->unlinkToDeath(twice)) << "takes back the newest";
    ASSERT_TRUE(lookUp()->linkToDeath(withoutProxy, 4)) << "the proxy goes at the end of this line";
    mProcess->kill(SIGKILL);
    ASSERT_TRUE(waitUntil([&] { return twice->notices().size() >= 2; }));
    EXPECT_EQ(twice->notices()[0].cookie, 1u);
    EXPECT_EQ(twice->notices()[1].cookie, 2u);
    EXPECT_TRUE(withoutProxy->notices().empty());
}

TEST_F(ADesktopService, KeepsACallbackUntilAnotherTakesItsPlaceOrItDies) {
    sp<FunctionCallback> callback = new FunctionCallback([](const std::string&) { return "first"; });
    const wp<FunctionCallback> first = callback;
    ASSERT_TRUE(mService->registerCallback(ClientType::CLIENT_CAMERA_HAL, callback).isOk());
    callback = new FunctionCallback([](const std::string&) { return "second"; });
    const wp<FunctionCallback> second = callback;
    ASSERT_TRUE(mService->registerCallback(ClientType::CLIENT_CAMERA_HAL, callback).isOk());
    callback = nullptr;
    EXPECT_TRUE(waitUntil([&] { return first.promote() == nullptr; })) << "nobody holds it any longer";
    EXPECT_EQ(send(mService, ClientType::CLIENT_CAMERA_HAL, "").reply, "second");
    mProcess->kill(SIGKILL);
    EXPECT_TRUE(waitUntil([&] { return second.promote() == nullptr; }));
}

TEST_F(ADesktopService, HostileTextsNeverReachTheCallback) {
    std::atomic<int> commands{0};
    const sp<FunctionCallback> hal = new FunctionCallback([&](const std::string&) {
        ++commands;
        return "taken";
    });
    ASSERT_TRUE(mService->registerCallback(ClientType::CLIENT_CAMERA_HAL, hal).isOk());
    const auto connection = sdbus::createSessionBusConnectionWithAddress(sBus->address());
    const auto service =
        sdbus::createProxy(*connection, vel::desktop_bus::kServiceName, vel::desktop_bus::kServicePath);
    // The reply to a stranger's text, or the error, which the service passes on.
    const auto call = [&](int fd, uint64_t length) {
        try {
            sdbus::Variant reply;
            service->callMethod(vel::desktop_bus::kSendCommand)
                .onInterface(vel::desktop_bus::kServiceInterface)
                .withArguments(static_cast<uint8_t>(ClientType::CLIENT_CAMERA_HAL),
                               sdbus::Variant(sdbus::make_struct(sdbus::UnixFd(fd), length)))
                .storeResultsTo(reply);
            return reply.get<std::string>();
        } catch (const sdbus::Error& error) {
            return error.getMessage();
        }
    };
    const char* const invalid =
        "HAL failed: org.freedesktop.DBus.Error.InvalidArgs: the command is not acceptable";

    const int memory = memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    ASSERT_EQ(ftruncate(memory, 100), 0);
    EXPECT_EQ(call(memory, 100), invalid) << "not sealed";
    ASSERT_EQ(fcntl(memory, F_ADD_SEALS, F_SEAL_WRITE | F_SEAL_SHRINK), 0);
    EXPECT_EQ(call(memory, 100), invalid) << "may still grow";
    ASSERT_EQ(fcntl(memory, F_ADD_SEALS, F_SEAL_GROW), 0);
    EXPECT_EQ(call(memory, 101), invalid) << "longer than the file";
    EXPECT_EQ(call(memory, UINT64_MAX), invalid) << "absurd length";
    EXPECT_EQ(call(STDERR_FILENO, 1), invalid) << "not a memory file";
    EXPECT_EQ(commands, 0);

    EXPECT_EQ(call(memory, 100), "taken") << "and the same file with its true length is fine";
    close(memory);
}

TEST_F(ADesktopService, MayDieAgainAndAgainUnderLoad) {
    const sp<FunctionCallback> hal =
        new FunctionCallback([](const std::string& command) { return "reply to " + command; });
    std::atomic<bool> ended{false};
    std::atomic<int> right{0}, wrong{0};
    std::vector<std::thread> senders;
    for (int sender = 0; sender < 4; ++sender) {
        senders.emplace_back([&, text = std::string(sender * 6000, 'x')] {
            while (!ended) {
                const sp<ICameraDesktop> service = lookUp();
                if (service == nullptr) continue;
                const Outcome outcome = send(service, ClientType::CLIENT_CAMERA_HAL, text);
                if (outcome.isOk) ++(outcome.reply == "reply to " + text ? right : wrong);
            }
        });
    }
    for (int death = 0; death < 8; ++death) {
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
    EXPECT_EQ(startProgram({"desktop_service"}, sBus->address())->wait(), 1);
    EXPECT_TRUE(mService->ping().isOk());
}

TEST_F(ADesktopService, ProcessMayExitWithCallsInFlightBothWays) {
    auto app = startApp();
    auto caller = startPeer(sBus->address());
    ASSERT_TRUE(obeys(*caller, "find", "found"));
    ASSERT_TRUE(obeys(*caller, "send hang", "sending"));
    ASSERT_TRUE(app->waitForLine("hanging"));
    caller->writeLine("exit");
    EXPECT_EQ(caller->wait(), 0) << "with an outgoing call";
    app->writeLine("exit");
    EXPECT_EQ(app->wait(), 0) << "with an incoming one";
    EXPECT_TRUE(mService->ping().isOk());
}

// The peer answers none of its commands, and the service passes on what two callers send without waiting.
TEST_F(ADesktopService, PeerHasNoThreadForEveryCommandThatSomebodySends) {
    const auto app = startApp();
    const auto threads = [&] {
        std::ifstream status("/proc/" + std::to_string(app->pid()) + "/status");
        std::string line;
        while (std::getline(status, line) && line.rfind("Threads:", 0) != 0) {
        }
        return line.empty() ? 0 : std::stoi(line.substr(line.find('\t')));
    };
    const int before = threads();
    for (int caller = 0; caller < 3; ++caller) {
        const auto connection = sdbus::createSessionBusConnectionWithAddress(sBus->address());
        const auto service =
            sdbus::createProxy(*connection, vel::desktop_bus::kServiceName, vel::desktop_bus::kServicePath);
        for (int i = 0; i < 100; ++i) {
            auto call = service->createMethodCall(vel::desktop_bus::kServiceInterface,
                                                  vel::desktop_bus::kSendCommand);
            call << static_cast<uint8_t>(ClientType::CLIENT_APP) << sdbus::Variant(std::string("hang"));
            call.dontExpectReply();
            (void)service->callMethod(call);
        }
        EXPECT_TRUE(mProcess->waitForLine("LimitsExceeded")) << caller;
    }
    EXPECT_FALSE(sendToApp("one more").isOk);
    EXPECT_LE(threads(), before + 70);
}

TEST(ADesktopBus, ThatDiesFailsCallsAndTellsDeaths) {
    PrivateBus bus;
    const auto service = startService(bus.address());
    const auto peer = startPeer(bus.address());
    ASSERT_TRUE(obeys(*peer, "find", "found"));
    ASSERT_TRUE(obeys(*peer, "register", "registered"));
    ASSERT_TRUE(obeys(*peer, "link", "linked"));
    ASSERT_TRUE(obeys(*peer, "send hang", "hanging"));
    bus.kill();
    EXPECT_NE(service->wait(), 0) << "the service says that it cannot go on";
    EXPECT_TRUE(peer->waitForLine("sent dead"));
    EXPECT_TRUE(peer->waitForLine("died"));
    EXPECT_TRUE(obeys(*peer, "find", "null"));
}

TEST(ADesktopBus, ThatCannotBeReachedIsTriedEverMoreSeldom) {
    const auto peer = startPeer("unix:path=/nonexistent/bus");
    peer->writeLine("attempts 500");
    const auto line = peer->waitForLine("attempts ");
    ASSERT_TRUE(line);
    const int attempts = std::stoi(line->substr(line->find(' ')));
    EXPECT_GE(attempts, 1);
    EXPECT_LT(attempts, 50);
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
