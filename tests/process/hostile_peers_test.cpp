// Peers that keep to no rule, and what the programs make of them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <memory>
#include <sstream>

#include "ChildProcess.h"
#include "DesktopBusNames.h"
#include "PrivateBus.h"
#include "Programs.h"
#include "TemporaryFolder.h"
#include "WireTypes.h"

namespace {

using namespace std::chrono_literals;
namespace bus = vel::desktop_bus;
using testing::IsEmpty;
using vel::sim::ChildProcess;
using vel::sim::PrivateBus;

constexpr uint8_t kApp = 0, kCameraService = 1, kImgSub = 7;
constexpr char kInvalid[] = "org.freedesktop.DBus.Error.InvalidArgs";
constexpr char kDenied[] = "org.freedesktop.DBus.Error.AccessDenied";

// A process of its own as far as the bus can tell, which sends what it likes.
class Stranger {
  public:
    explicit Stranger(const PrivateBus& bus)
        : mConnection(sdbus::createSessionBusConnectionWithAddress(bus.address())) {}

    std::string name() const { return mConnection->getUniqueName(); }

    // The text of the reply, or the name of the error.
    std::string send(uint8_t type, const std::string& text) {
        sdbus::Variant reply;
        const std::string error =
            invoke(service(), bus::kServiceInterface, bus::kSendCommand,
                   [&](auto& call) { call.withArguments(type, sdbus::Variant(text)).storeResultsTo(reply); });
        return error.empty() ? reply.get<std::string>() : error;
    }
    // RegisterCallback or SetSurface; empty when it was accepted, else the name of the error.
    std::string give(const char* method, uint8_t type, const std::string& owner, const std::string& path) {
        return invoke(service(), bus::kServiceInterface, method, [&](auto& call) {
            call.withArguments(type, sdbus::make_struct(owner, sdbus::ObjectPath(path)));
        });
    }
    std::string take(const char* method, uint8_t type) { return give(method, type, "", "/"); }
    // The owner of the surface, or the name of the error.
    std::string surfaceOwner(uint8_t type) {
        sdbus::Struct<std::string, sdbus::ObjectPath> surface;
        const std::string error =
            invoke(service(), bus::kServiceInterface, bus::kGetSurface,
                   [&](auto& call) { call.withArguments(type).storeResultsTo(surface); });
        return error.empty() ? std::get<0>(surface) : error;
    }
    // To another client's object, past the service.
    std::string reference(const bus::InterfaceObject& object, const char* method) {
        return invoke(object, bus::kReferenceInterface, method, [](auto&) {});
    }
    std::string command(const bus::InterfaceObject& object) {
        return invoke(object, bus::kCallbackInterface, bus::kOnCommand,
                      [](auto& call) { call.withArguments(sdbus::Variant(std::string("{}"))); });
    }

  private:
    static bus::InterfaceObject service() { return {bus::kServiceName, bus::kServicePath}; }

    template <typename Complete>
    std::string invoke(const bus::InterfaceObject& object, const char* interface, const char* method,
                       const Complete& complete) try {
        const auto proxy = sdbus::createProxy(*mConnection, object.busName, object.path);
        complete(proxy->callMethod(method).onInterface(interface));
        return "";
    } catch (const sdbus::Error& error) {
        return error.getName();
    }

    const std::unique_ptr<sdbus::IConnection> mConnection;
};

class AmongStrangers : public testing::Test {
  protected:
    std::unique_ptr<ChildProcess> startApp(const std::string& reply) {
        auto app = startProgram({"desktop_app", "--reply", reply}, bus.address());
        const auto line = service->waitForLine("APP registered ");
        EXPECT_TRUE(line);
        std::istringstream words(line->substr(line->find("registered ")));
        std::string registered;
        words >> registered >> callback.busName >> callback.path;
        return app;
    }

    PrivateBus bus;
    std::unique_ptr<ChildProcess> service = startService(bus.address());
    bus::InterfaceObject callback;  // of the application started last
    Stranger stranger{bus};
};

TEST_F(AmongStrangers, TheServiceGivesATypeToItsNewestLiveRegistration) {
    const auto one = startApp("ONE");
    const auto two = startApp("TWO");
    EXPECT_TRUE(service->waitForLine("APP replaced "));
    EXPECT_EQ(stranger.send(kApp, "{}"), "TWO");
    ASSERT_EQ(stranger.give(bus::kRegisterCallback, kApp, stranger.name(), "/nothing"), "");
    EXPECT_EQ(stranger.take(bus::kRegisterCallback, kApp), "") << "its own";
    EXPECT_TRUE(service->waitForLine("APP restored "));
    EXPECT_EQ(stranger.take(bus::kRegisterCallback, kApp), "") << "and nobody else's";
    EXPECT_EQ(stranger.send(kApp, "{}"), "TWO");
    two->kill(SIGKILL);
    EXPECT_TRUE(service->waitForLine("APP restored "));
    EXPECT_EQ(stranger.send(kApp, "{}"), "ONE");
    one->kill(SIGKILL);
    EXPECT_TRUE(service->waitForLine("died callback APP dropped"));
    EXPECT_EQ(stranger.send(kApp, "{}"), bus::kErrorNoPeer);
}

// The newest HAL and the newest application have each other; the others get their places when these go.
TEST_F(AmongStrangers, TwoHalsAndTwoApplicationsTakeTurns) {
    constexpr char kSwitch[] = R"({"general":{"originalId":0,"overrideId":2}})";
    constexpr char kDone[] = "sessionRestartDone";
    const auto startHal = [&] {
        auto hal = startProgram({"camera_server"}, bus.address());
        EXPECT_TRUE(service->waitForLine("HAL registered ") &&
                    service->waitForLine("CAMERA_SERVICE registered "));
        hal->writeLine("open 0");
        EXPECT_TRUE(hal->waitForLine("open 0 -> camera 4"));
        return hal;
    };
    const auto startTypedApp = [&] {
        auto app = startProgram({"desktop_app", "-"}, bus.address());
        EXPECT_TRUE(service->waitForLine("APP registered "));
        return app;
    };
    const auto firstHal = startHal(), secondHal = startHal();
    const auto firstApp = startTypedApp(), secondApp = startTypedApp();

    // Whoever asks, the newest HAL switches, and its restart is the newest application's to hear of.
    firstApp->writeLine(kSwitch);
    EXPECT_TRUE(secondHal->waitForLine("open 0 -> camera 2"));
    EXPECT_TRUE(secondApp->waitForLine(kDone));
    firstHal->writeLine("status 0");
    EXPECT_TRUE(firstHal->waitForLine("status 0: camera 4"));
    const auto replaces = [](ChildProcess& hal, ChildProcess& app) {
        hal.writeLine("frames 0 size=64x48 count=5");
        EXPECT_TRUE(hal.waitForLine("frames of 64x48 ready"));
        app.writeLine("frames size=64x48");
        return hal.waitForLine("frames ended: ").value_or("no end");
    };
    EXPECT_THAT(replaces(*secondHal, *secondApp), testing::EndsWith("well"));

    secondHal->kill(SIGKILL);
    secondApp->kill(SIGKILL);
    EXPECT_TRUE(service->waitForLine("HAL restored ") && service->waitForLine("APP restored "));
    EXPECT_FALSE(firstApp->waitForLine(kDone, 0s)) << "was the other's";
    firstApp->writeLine(kSwitch);
    EXPECT_TRUE(firstHal->waitForLine("open 0 -> camera 2"));
    EXPECT_TRUE(firstApp->waitForLine(kDone));
    EXPECT_THAT(replaces(*firstHal, *firstApp), testing::EndsWith("well"));
}

TEST_F(AmongStrangers, TheServiceLetsNobodySpeakForAnother) {
    const auto app = startApp("OK");
    Stranger owner(bus);
    ASSERT_EQ(owner.give(bus::kSetSurface, kImgSub, owner.name(), "/surface"), "");
    const std::string own = stranger.name();
    for (const char* method : {bus::kRegisterCallback, bus::kSetSurface}) {
        EXPECT_EQ(stranger.give(method, kImgSub, callback.busName, callback.path), kInvalid) << method;
        EXPECT_EQ(stranger.give(method, kImgSub, "no name", "/a"), kInvalid) << method;
        EXPECT_EQ(stranger.give(method, kImgSub, "", "/a"), kInvalid) << method;
        EXPECT_EQ(stranger.give(method, 3, own, "/a"), kInvalid) << method;
    }
    EXPECT_EQ(stranger.send(255, "{}"), kInvalid);
    EXPECT_EQ(stranger.surfaceOwner(8), kInvalid);
    EXPECT_EQ(stranger.take(bus::kSetSurface, kImgSub), kDenied);
    EXPECT_EQ(stranger.give(bus::kSetSurface, kImgSub, own, "/a"), kDenied);
    EXPECT_EQ(stranger.surfaceOwner(kImgSub), owner.name());
    ASSERT_EQ(stranger.give(bus::kRegisterCallback, kCameraService, own, "/a"), "");
    EXPECT_EQ(stranger.give(bus::kSetSurface, kImgSub, own, "/a"), "") << "a peer may replace a surface";

    EXPECT_EQ(stranger.command(callback), kDenied);
    (void)stranger.reference(callback, bus::kAcquire);
    EXPECT_EQ(stranger.command(callback), kDenied) << "with a reference, too";
    EXPECT_EQ(stranger.send(kApp, "{}"), "OK");
}

TEST_F(AmongStrangers, TheCameraServerWaitsForNobody) {
    const auto camera = startProgram({"camera_server"}, bus.address());
    ASSERT_TRUE(service->waitForLine("HAL registered"));
    const auto app = startApp("");
    app->kill(SIGSTOP);
    const auto does = [&](const char* command, const char* line) {
        return camera->writeLine(command) && camera->waitForLine(line, 10s);
    };
    ASSERT_TRUE(does("open 0", "open 0 -> camera 4"));
    ASSERT_TRUE(camera->writeLine("capture 0 9 30"));
    ASSERT_TRUE(service->waitForLine("HAL -> APP"));
    EXPECT_TRUE(does("open 1", "open 1 -> camera 1"));
    EXPECT_TRUE(does("close 0", "close 0"));
    EXPECT_TRUE(does("capture 0 1 1", "error camera 0 is not open"));
    camera->kill(SIGTERM);
    EXPECT_TRUE(camera->wait(10s));
}

// --- Exhausted and closed ---

// The program, as the shell starts it: before and behind its name stands what its surroundings are.
std::unique_ptr<ChildProcess> startInShell(const std::string& before, const std::string& program,
                                           const std::string& behind, const PrivateBus& bus) {
    return startProgram({"/bin/sh", "-c", before + " exec '" + programPath(program) + "' " + behind},
                        bus.address());
}

TEST_F(AmongStrangers, TheCameraServerTellsThatItHasNoDescriptorsAndGoesOnWhereItCan) {
    for (int limit = 6; limit < 16; ++limit) {  // with fewer an emulator ends before the program begins
        const auto camera =
            startInShell("ulimit -n " + std::to_string(limit) + ";", "camera_server", "", bus);
        camera->closeInput();
        EXPECT_GE(camera->wait().value_or(-1), 0) << limit;
    }
    const auto camera = startProgram({"camera_server"}, bus.address());
    camera->writeLine("status 0");
    ASSERT_TRUE(camera->waitForLine("status 0: camera 0"));
    rlimit before{};
    ASSERT_EQ(prlimit(camera->pid(), RLIMIT_NOFILE, nullptr, &before), 0);
    const rlimit none = {4, before.rlim_max};  // as few as it polls
    ASSERT_EQ(prlimit(camera->pid(), RLIMIT_NOFILE, &none, nullptr), 0);
    camera->writeLine("frames 0 size=64x48 streams=1");
    EXPECT_TRUE(camera->waitForLine("error no descriptor for the frames"));
    ASSERT_EQ(prlimit(camera->pid(), RLIMIT_NOFILE, &before, nullptr), 0);
    camera->writeLine("frames 0 size=64x48 streams=1");
    EXPECT_TRUE(camera->waitForLine("frames of 64x48 ready"));
}

TEST_F(AmongStrangers, NoDescriptorTakesThePlaceOfAClosedStandardStream) {
    const auto camera = startInShell("", "camera_server", ">&- 2>&-", bus);
    const auto app = startInShell("", "desktop_app", "<&- >&- 2>&-", bus);
    ASSERT_TRUE(service->waitForLine("HAL registered"));
    ASSERT_TRUE(service->waitForLine("APP registered"));
    for (const pid_t pid : {camera->pid(), app->pid()}) {
        for (const char* stream : {"1", "2"}) {
            const std::string link = "/proc/" + std::to_string(pid) + "/fd/" + stream;
            EXPECT_EQ(std::filesystem::read_symlink(link), "/dev/null") << link;
        }
    }
}

TEST_F(AmongStrangers, TheCameraServerLeavesNoOutputWhenItsReaderGoes) {
    const TemporaryFolder folder;
    const auto camera = startProgram(
        {"/bin/sh", "-c", "'" + programPath("camera_server") + "' | grep -m1 ready"}, bus.address());
    camera->writeLine("frames 0 size=64x48 output=" + folder.path("replaced.y4m"));
    EXPECT_TRUE(camera->waitForLine("ready"));
    EXPECT_TRUE(camera->wait());
    EXPECT_THAT(folder.names(), IsEmpty());
}

}  // namespace
