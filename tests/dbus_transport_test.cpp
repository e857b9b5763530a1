#include <fcntl.h>
#include <gtest/gtest.h>
#include <hidl/HidlTransportSupport.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include <sdbus-c++/sdbus-c++.h>

#include "ChildProcess.h"
#include "LogCapture.h"
#include "PrivateBus.h"
#include "WaitUntil.h"
#include "dbus_transport_peer.h"

using android::sp;
using android::wp;
using vel::sim::ChildProcess;
using vel::sim::PrivateBus;
using IBase = android::hidl::base::V1_0::IBase;

namespace {

constexpr char kAddressVariable[] = "VEL_DESKTOP_BUS_ADDRESS";

// Another process that runs runDesktopPeer().
std::unique_ptr<ChildProcess> startPeer(const std::string& busAddress) {
    ChildProcess::Options options;
    options.command = {"/proc/self/exe", "--peer"};
    options.environment = {{kAddressVariable, busAddress}};
    return std::make_unique<ChildProcess>(std::move(options));
}

testing::AssertionResult obeys(ChildProcess& peer, const std::string& line, const std::string& expected) {
    peer.writeLine(line);
    if (peer.waitForLine(expected)) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "\"" << line << "\" did not lead to \"" << expected << "\"";
}

std::unique_ptr<ChildProcess> startService(const std::string& busAddress) {
    ChildProcess::Options options;
    options.command = {DESKTOP_SERVICE, "--trace", "--bus", busAddress};
    auto service = std::make_unique<ChildProcess>(std::move(options));
    EXPECT_TRUE(service->waitForLine("ready"));
    return service;
}

sp<ICameraDesktop> lookUp() {
    return ICameraDesktop::tryGetService("default", false);
}

class RecordingRecipient : public android::hardware::hidl_death_recipient {
  public:
    // Takes the lock, as the library's own recipient does, before it records.
    explicit RecordingRecipient(std::mutex* lock = nullptr) : mCallersLock(lock) {}

    void serviceDied(uint64_t cookie, const wp<IBase>& who) override {
        if (mCallersLock != nullptr) std::lock_guard<std::mutex> taken(*mCallersLock);
        std::lock_guard<std::mutex> lock(mLock);
        mCookies.push_back(cookie);
        mWho = who;
        mThread = std::this_thread::get_id();
    }
    std::vector<uint64_t> cookies() const {
        std::lock_guard<std::mutex> lock(mLock);
        return mCookies;
    }
    sp<IBase> who() const {
        std::lock_guard<std::mutex> lock(mLock);
        return mWho.promote();
    }
    std::thread::id thread() const {
        std::lock_guard<std::mutex> lock(mLock);
        return mThread;
    }

  private:
    std::mutex* const mCallersLock;
    mutable std::mutex mLock;
    std::vector<uint64_t> mCookies;
    wp<IBase> mWho;
    std::thread::id mThread;
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
    const struct {
        const char* what;
        std::string text;
    } cases[] = {
        {"empty", ""},
        {"JSON", R"({"event":{"type":"sessionRestartDone"}})"},
        {"characters of every length", "a\u00e4\u20ac\U0001F600"},
        {"a NUL inside", std::string("ab\0cd", 5)},
        {"a NUL at the end", std::string("ab\0", 3)},
        {"a lone continuation byte", "a\x80"},
        {"a character cut off", "a\xe2\x82"},
        {"an overlong form", "\xc0\xaf"},
        {"a surrogate", "\xed\xa0\x80"},
        {"a non-character", "\xef\xbf\xbe"},
        {"a number beyond the last character", "\xf4\x90\x80\x80"},
        {"the longest string", std::string(8192, 'x')},
        {"the shortest memory file", std::string(8193, 'x')},
        {"a mebibyte of every byte",
         [] {
             std::string text(1 << 20, '\0');
             for (size_t i = 0; i < text.size(); ++i)
                 text[i] = static_cast<char>(i * 131 + i / 256);
             return text;
         }()},
    };
    for (const auto& [what, text] : cases) {
        const Outcome outcome = sendToApp(text);
        EXPECT_TRUE(outcome.isOk) << what;
        EXPECT_TRUE(outcome.reply == text) << what;
    }
}

TEST_F(ADesktopService, IsNotAskedToCarryTextsBeyondTheLimit) {
    const auto app = startApp();
    const Outcome outcome = sendToApp(std::string((64u << 20) + 1, 'x'));
    EXPECT_FALSE(outcome.isOk);
    EXPECT_FALSE(outcome.isDead);
    EXPECT_FALSE(outcome.reply);
    EXPECT_EQ(sendToApp("still there").reply, "still there");
}

TEST_F(ADesktopService, AbsentPeerIsAFailureButNotADeath) {
    const Outcome outcome = sendToApp("{}");
    EXPECT_FALSE(outcome.isOk);
    EXPECT_FALSE(outcome.isDead);
    EXPECT_FALSE(outcome.reply);
    EXPECT_TRUE(mProcess->waitForLine("Error.NoPeer: APP has not registered"));
}

TEST_F(ADesktopService, NullReplyFunctionIsRefusedWithoutACall) {
    EXPECT_FALSE(mService->sendCommand(ClientType::CLIENT_APP, "{}", nullptr).isOk());
}

TEST_F(ADesktopService, CommandsBackAreServedWhileCallsAreInFlight) {
    const sp<FunctionCallback> hal =
        new FunctionCallback([](const std::string& command) { return "reply to " + command; });
    ASSERT_TRUE(mService->registerCallback(ClientType::CLIENT_CAMERA_HAL, hal).isOk());
    const auto app = startApp();
    std::mutex serviceLock;  // held over one of the calls, as the library holds its own
    std::atomic<int> right{0};
    std::vector<std::thread> senders;
    for (int sender = 0; sender < 6; ++sender) {
        senders.emplace_back([&, sender] {
            std::unique_lock<std::mutex> lock(serviceLock, std::defer_lock);
            if (sender == 0) lock.lock();
            for (int i = 0; i < 20; ++i)
                right += sendToApp("ask back").reply == "reply to question";
        });
    }
    for (std::thread& sender : senders)
        sender.join();
    EXPECT_EQ(right, 6 * 20);
}

TEST_F(ADesktopService, CallsOfOneThreadPassACallThatHangs) {
    const auto app = startApp();
    std::thread hanging([this] { EXPECT_FALSE(sendToApp("hang").isOk); });
    EXPECT_TRUE(app->waitForLine("hanging"));
    EXPECT_EQ(sendToApp("another").reply, "another");
    app->kill(SIGKILL);
    hanging.join();
}

TEST_F(ADesktopService, PeerKilledDuringACallFailsItAndMayComeBack) {
    auto app = startApp();
    std::thread killer([&] {
        EXPECT_TRUE(app->waitForLine("hanging"));
        app->kill(SIGKILL);
    });
    const Outcome outcome = sendToApp("hang");
    killer.join();
    EXPECT_FALSE(outcome.isOk);
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
        EXPECT_TRUE(recipient->cookies().empty());
    }
    killer.join();
    ASSERT_TRUE(waitUntil([&] { return !recipient->cookies().empty(); }));
    EXPECT_EQ(recipient->who(), sp<IBase>(mService));
    EXPECT_NE(recipient->thread(), std::this_thread::get_id());

    const sp<ICameraDesktop> dead = mService;
    restartService();
    EXPECT_TRUE(send(dead, ClientType::CLIENT_APP, "{}").isDead) << "a proxy belongs to one process for good";
    EXPECT_FALSE(dead->linkToDeath(recipient, 8));
    EXPECT_FALSE(dead->unlinkToDeath(recipient));
    const auto restartedApp = startApp();
    EXPECT_EQ(sendToApp("again").reply, "again");
    EXPECT_EQ(recipient->cookies(), std::vector<uint64_t>{7});
}

TEST_F(ADesktopService, TellsEachDeathRegistrationThatIsStillWanted) {
    const sp<RecordingRecipient> twice = new RecordingRecipient;
    const sp<RecordingRecipient> withoutProxy = new RecordingRecipient;
    sp<RecordingRecipient> forgotten = new RecordingRecipient;
    const wp<RecordingRecipient> weak = forgotten;
    for (const uint64_t cookie : {1, 2, 3})
        ASSERT_TRUE(mService->linkToDeath(twice, cookie));
    EXPECT_TRUE(mService->unlinkToDeath(twice)) << "takes back the newest";
    EXPECT_FALSE(mService->unlinkToDeath(withoutProxy));
    EXPECT_FALSE(mService->linkToDeath(nullptr, 0));
    ASSERT_TRUE(mService->linkToDeath(forgotten, 4));
    ASSERT_TRUE(lookUp()->linkToDeath(withoutProxy, 5)) << "the proxy goes at the end of this line";
    forgotten = nullptr;
    EXPECT_EQ(weak.promote(), nullptr) << "recipients are held weakly";

    mProcess->kill(SIGKILL);
    ASSERT_TRUE(waitUntil([&] { return twice->cookies().size() >= 2; }));
    EXPECT_EQ(twice->cookies(), (std::vector<uint64_t>{1, 2}));
    EXPECT_TRUE(withoutProxy->cookies().empty());
}

TEST_F(ADesktopService, EachLookUpYieldsANewProxyOfTheSameService) {
    const sp<ICameraDesktop> other = lookUp();
    EXPECT_NE(other, mService);
    EXPECT_TRUE(other->isRemote());
    EXPECT_TRUE(android::hardware::interfacesEqual(other, mService));
    EXPECT_TRUE(other->ping().isOk());
    EXPECT_EQ(ICameraDesktop::tryGetService("another", false), nullptr);
    restartService();
    EXPECT_FALSE(android::hardware::interfacesEqual(other, mService));
    EXPECT_TRUE(other->ping().isDeadObject());
    EXPECT_FALSE(other->linkToDeath(new RecordingRecipient, 0)) << "nobody would ever tell it";
}

TEST_F(ADesktopService, KeepsACallbackUntilAnotherTakesItsPlace) {
    sp<FunctionCallback> first = new FunctionCallback([](const std::string&) { return "first"; });
    const wp<FunctionCallback> weak = first;
    for (const ClientType type : {ClientType::CLIENT_CAMERA_HAL, ClientType::CLIENT_CAMERA_SERVICE}) {
        ASSERT_TRUE(mService->registerCallback(type, first).isOk());
    }
    const auto asHal = mProcess->waitForLine("HAL registered");
    const auto asService = mProcess->waitForLine("CAMERA_SERVICE registered");
    ASSERT_TRUE(asHal && asService);
    const auto object = [](const std::string& line) { return line.substr(line.find(" :")); };
    EXPECT_EQ(object(*asHal), object(*asService)) << "one object has one path";
    first = nullptr;
    EXPECT_EQ(send(mService, ClientType::CLIENT_CAMERA_HAL, "").reply, "first");

    const sp<FunctionCallback> second = new FunctionCallback([](const std::string&) { return "second"; });
    ASSERT_TRUE(mService->registerCallback(ClientType::CLIENT_CAMERA_HAL, second).isOk());
    EXPECT_EQ(send(mService, ClientType::CLIENT_CAMERA_HAL, "").reply, "second");
    EXPECT_EQ(send(mService, ClientType::CLIENT_CAMERA_SERVICE, "").reply, "first");
    ASSERT_TRUE(mService->registerCallback(ClientType::CLIENT_CAMERA_SERVICE, nullptr).isOk());
    EXPECT_TRUE(waitUntil([&] { return weak.promote() == nullptr; })) << "nobody holds the first any longer";
    EXPECT_FALSE(send(mService, ClientType::CLIENT_CAMERA_SERVICE, "").isOk);
}

TEST_F(ADesktopService, HandsALocalSurfaceBackAsTheSameObjectWhileItHoldsIt) {
    const auto surface = [this] {
        return mService->getSurface(ClientType::CLIENT_IMG_SUB).withDefault(nullptr);
    };
    EXPECT_EQ(surface(), nullptr);
    sp<IdleProducer> producer = new IdleProducer;
    const wp<IdleProducer> weak = producer;
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(mService->setSurface(ClientType::CLIENT_IMG_SUB, producer).isOk());
        EXPECT_EQ(surface().get(), producer.get());
    }
    producer = nullptr;
    EXPECT_NE(surface(), nullptr) << "the service's reference keeps it";
    ASSERT_TRUE(mService->setSurface(ClientType::CLIENT_IMG_SUB, nullptr).isOk());
    EXPECT_EQ(surface(), nullptr);
    EXPECT_TRUE(waitUntil([&] { return weak.promote() == nullptr; }));
}

TEST_F(ADesktopService, LetsGoOfWhatItHeldWhenItDies) {
    sp<IdleProducer> producer = new IdleProducer;
    const wp<IdleProducer> weak = producer;
    ASSERT_TRUE(mService->setSurface(ClientType::CLIENT_IMG_SUB, producer).isOk());
    producer = nullptr;
    EXPECT_NE(weak.promote(), nullptr);
    mProcess->kill(SIGKILL);
    EXPECT_TRUE(waitUntil([&] { return weak.promote() == nullptr; }));
}

// Calls the callback under its path on the bus, from a connection that is not the service's.
class AForeignCaller {
  public:
    AForeignCaller(const std::string& busAddress, const std::string& registeredLine)
        : mConnection(sdbus::createSessionBusConnectionWithAddress(busAddress)) {
        const size_t name = registeredLine.find(" :") + 1;
        const size_t path = registeredLine.find(" /") + 1;
        mProxy = sdbus::createProxy(*mConnection, registeredLine.substr(name, path - name - 1),
                                    registeredLine.substr(path));
    }

    // The reply, or the name of the error.
    std::string call(const sdbus::Variant& command) {
        try {
            sdbus::Variant reply;
            mProxy->callMethod("OnCommand")
                .onInterface("korvanta.hardware.camera.desktop.V1_0.ICameraDesktopCallback")
                .withArguments(command)
                .storeResultsTo(reply);
            return reply.get<std::string>();
        } catch (const sdbus::Error& error) {
            return error.getName();
        }
    }

    std::string call(int memory, uint64_t length) {
        return call(sdbus::Variant(sdbus::make_struct(sdbus::UnixFd(memory), length)));
    }

  private:
    std::unique_ptr<sdbus::IConnection> mConnection;
    std::unique_ptr<sdbus::IProxy> mProxy;
};

TEST_F(ADesktopService, HostileTextsNeverReachTheCallback) {
    std::atomic<int> commands{0};
    const sp<FunctionCallback> hal = new FunctionCallback([&](const std::string&) {
        ++commands;
        return "taken";
    });
    ASSERT_TRUE(mService->registerCallback(ClientType::CLIENT_CAMERA_HAL, hal).isOk());
    const auto registered = mProcess->waitForLine("HAL registered");
    ASSERT_TRUE(registered);
    AForeignCaller caller(sBus->address(), *registered);
    const char* const invalid = "org.freedesktop.DBus.Error.InvalidArgs";

    const int memory = memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    ASSERT_EQ(ftruncate(memory, 100), 0);
    EXPECT_EQ(caller.call(memory, 100), invalid) << "not sealed";
    ASSERT_EQ(fcntl(memory, F_ADD_SEALS, F_SEAL_WRITE | F_SEAL_SHRINK), 0);
    EXPECT_EQ(caller.call(memory, 100), invalid) << "may still grow";
    ASSERT_EQ(fcntl(memory, F_ADD_SEALS, F_SEAL_GROW), 0);
    EXPECT_EQ(caller.call(memory, 101), invalid) << "longer than the file";
    EXPECT_EQ(caller.call(memory, UINT64_MAX), invalid) << "absurd length";
    int pipeEnds[2];
    ASSERT_EQ(pipe(pipeEnds), 0);
    EXPECT_EQ(caller.call(pipeEnds[0], 1), invalid) << "not a memory file";
    EXPECT_NE(caller.call(sdbus::Variant(uint32_t{1})), "taken") << "not a text";
    EXPECT_EQ(commands, 0);

    EXPECT_EQ(caller.call(memory, 100), "taken") << "and the same file with its true length is fine";
    for (const int fd : {memory, pipeEnds[0], pipeEnds[1]})
        close(fd);
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
    ChildProcess::Options options;
    options.command = {DESKTOP_SERVICE, "--bus", sBus->address()};
    ChildProcess second(std::move(options));
    EXPECT_EQ(second.wait(), 1);
    EXPECT_TRUE(mService->ping().isOk());
}

TEST_F(ADesktopService, EndsCleanlyOnTheUsualSignals) {
    for (const int signal : {SIGINT, SIGTERM}) {
        mProcess->kill(signal);
        EXPECT_EQ(mProcess->wait(), 0) << "signal " << signal;
        restartService();
    }
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

TEST(ADesktopBus, ThatIsNotNamedIsMissedOnce) {
    const auto peer = startPeer("");
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(obeys(*peer, "find", "null"));
    EXPECT_TRUE(obeys(*peer, "logged VEL_DESKTOP_BUS_ADDRESS is not set", "logged 1"));
}

TEST(ADesktopBus, ThatIsNotThereYieldsNoService) {
    const auto peer = startPeer("unix:path=/nonexistent/bus");
    EXPECT_TRUE(obeys(*peer, "find", "null"));
    EXPECT_TRUE(obeys(*peer, "logged Cannot reach the bus at unix:path=/nonexistent/bus", "logged 1"));
}

TEST(ADesktopBus, ThatNeverAnswersHoldsUpNeitherLookUpNorExit) {
    const std::string name = "vel-silent-bus-" + std::to_string(getpid());
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path + 1, sizeof(address.sun_path) - 2);  // abstract: nothing to remove
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), size), 0);
    ASSERT_EQ(listen(listener, 4), 0);
    const auto peer = startPeer("unix:abstract=" + name);
    EXPECT_TRUE(obeys(*peer, "find", "null"));
    EXPECT_TRUE(obeys(*peer, "logged does not answer", "logged 1"));
    peer->writeLine("exit");
    EXPECT_EQ(peer->wait(), 0);
    close(listener);
}

TEST(ADesktopBus, ThatDiesFailsCallsTellsDeathsAndMayBeReplaced) {
    auto bus = std::make_unique<PrivateBus>();
    auto service = startService(bus->address());
    const auto peer = startPeer(bus->address());
    ASSERT_TRUE(obeys(*peer, "find", "found"));
    ASSERT_TRUE(obeys(*peer, "register", "registered"));
    ASSERT_TRUE(obeys(*peer, "link", "linked"));
    ASSERT_TRUE(obeys(*peer, "send hang", "hanging"));
    bus->kill();
    EXPECT_NE(service->wait(), 0) << "the service says that it cannot go on";
    EXPECT_TRUE(peer->waitForLine("sent dead"));
    EXPECT_TRUE(peer->waitForLine("died"));
    EXPECT_TRUE(obeys(*peer, "first", "first dead"));
    EXPECT_TRUE(obeys(*peer, "find", "null"));

    bus = std::make_unique<PrivateBus>();
    service = startService(bus->address());
    ASSERT_TRUE(obeys(*peer, "bus " + bus->address(), "bus set"));
    ASSERT_TRUE(obeys(*peer, "find", "found"));
    EXPECT_TRUE(obeys(*peer, "first", "first dead")) << "the new service has the unique name of the old one";
    ASSERT_TRUE(obeys(*peer, "register", "registered"));
    EXPECT_TRUE(obeys(*peer, "send {}", "sent ok"));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::string(argv[1]) == "--peer") return runDesktopPeer();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
