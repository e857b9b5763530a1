// Frames through image substitution, between the programs on a private bus.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>
#include <sys/mman.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <sstream>

#include "ChildProcess.h"
#include "DesktopBusNames.h"
#include "FrameView.h"
#include "Packet.h"
#include "PrivateBus.h"
#include "Programs.h"
#include "RawChannelEnd.h"
#include "TemporaryFolder.h"
#include "WaitUntil.h"

namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::Ge;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Le;
using vel::sim::ChildProcess;
using vel::sim::PrivateBus;

constexpr auto kLimit = 60s;
constexpr size_t kCachedSlots = 7;  // of each frame path of the library

// The open descriptors of a process whose target contains the text.
size_t descriptorsOf(pid_t pid, const std::string& kind = "") {
    size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
        std::error_code closedMeanwhile;
        const std::string target = std::filesystem::read_symlink(entry, closedMeanwhile);
        count += target.find(kind) != std::string::npos;
    }
    return count;
}

// A stream's line of the closing table.
struct StreamRow {
    unsigned sent = 0, inTime = 0, repeated = 0, late = 0, dropped = 0, copies = 0;
};

class FramesBetweenProcesses : public testing::Test {
  protected:
    void SetUp() override {
        service = startService(bus.address());
        camera = startProgram({"camera_server"}, bus.address());
        ASSERT_TRUE(service->waitForLine("HAL registered"));
        startApp();
    }

    void startApp() {
        app = startProgram({"desktop_app", "-"}, bus.address());
        ASSERT_TRUE(app->waitForLine("registered"));
    }
    void startFrames(const std::string& size, const std::string& sensor, const std::string& application) {
        camera->writeLine("frames 0 size=" + size + " " + sensor);
        ASSERT_TRUE(camera->waitForLine("frames of " + size + " ready"));
        configure(size, application);
    }
    void configure(const std::string& size, const std::string& application) {
        app->writeLine("frames size=" + size + " " + application);
        ASSERT_TRUE(app->waitForLine("frames of " + size + " configured"));
    }
    // Whatever the application holds goes with it.
    void restartApp() {
        app->kill(SIGKILL);
        app->wait();
        startApp();
    }
    void endAppsFrames() {
        app->writeLine("frames end");
        EXPECT_THAT(app->waitForLine("frames ended: ").value_or("it hangs"), HasSubstr("out of order 0"));
    }
    std::string outcome() { return camera->waitForLine("frames ended: ", kLimit).value_or("it hangs"); }
    StreamRow row(int stream) {
        const std::string name = "stream " + std::to_string(stream) + " ";
        const std::string line = camera->waitForLine(name, kLimit).value_or(name);
        std::istringstream numbers(line.substr(line.find(name) + name.size()));
        StreamRow read;
        numbers >> read.sent >> read.inTime >> read.repeated >> read.late >> read.dropped >> read.copies;
        EXPECT_TRUE(numbers) << line;
        return read;
    }

    PrivateBus bus;
    std::unique_ptr<ChildProcess> service;
    std::unique_ptr<ChildProcess> camera;
    std::unique_ptr<ChildProcess> app;
};

// The camera server ends its frames well only when each replacement's picture is the one that its header
// tells and lies in the memory that the application wrote to.
TEST_F(FramesBetweenProcesses, OfFourStreamsAreReplacedByTheirOwn) {
    startFrames("321x243", "streams=4 fps=30 count=60", "effect=blur");
    for (int stream = 0; stream < 4; ++stream) {
        const StreamRow counts = row(stream);
        EXPECT_GE(counts.inTime, 1u) << "stream " << stream;
        EXPECT_EQ(counts.copies, 0u) << "stream " << stream;
        EXPECT_EQ(counts.inTime + counts.late + counts.repeated + counts.dropped, 60u) << "stream " << stream;
    }
    EXPECT_THAT(outcome(), HasSubstr("frames ended: well"));
    endAppsFrames();
    for (ChildProcess* program : {app.get(), camera.get()}) {
        program->closeInput();
        EXPECT_EQ(program->wait(), 0);
    }
}

TEST_F(FramesBetweenProcesses, GoOnWithAnotherApplicationAfterOneWasKilledWithBuffersInItsHands) {
    startFrames("640x480", "streams=2 fps=30", "hold=10");
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(app->waitForLine("frames held"));
        for (const char* stream : {"stream 0: ", "stream 1: "})
            ASSERT_TRUE(camera->waitForLine(stream + std::string("replacements stop"))) << "round " << round;
        restartApp();
        configure("640x480", round < 2 ? "hold=10" : "");
        for (const char* stream : {"stream 0: ", "stream 1: "})
            ASSERT_TRUE(camera->waitForLine(stream + std::string("replacements are back")))
                << "round " << round;
    }
    camera->writeLine("frames end");
    EXPECT_THAT(outcome(), HasSubstr("frames ended: well"));
}

TEST_F(FramesBetweenProcesses, ThatMustNotBeLostOutliveTheApplication) {
    const TemporaryFolder folder;
    const std::string file = folder.path("replaced.y4m");
    startFrames("64x48", "fps=30 count=30 output=" + file, "hold=10");
    ASSERT_TRUE(app->waitForLine("frames held"));
    restartApp();
    configure("64x48", "");
    EXPECT_EQ(row(0).inTime, 30u);
    EXPECT_THAT(outcome(), HasSubstr("frames ended: well"));
    EXPECT_GT(std::filesystem::file_size(file), 30u * 64 * 48 * 3 / 2);
}

// Each buffer in a process's hands is one descriptor of shared memory. The first run gives no frame back, so
// that every slot has its buffer: those of the frame path stay cached, and later runs need no more.
TEST_F(FramesBetweenProcesses, StartAndStopInChangingSizesWithoutGrowth) {
    const auto buffers = [this] { return descriptorsOf(camera->pid(), "memfd:"); };
    startFrames("64x48", "fps=30 count=60", "hold=0");
    ASSERT_TRUE(waitUntil([&] { return buffers() == 2 * kCachedSlots; }));
    endAppsFrames();
    EXPECT_THAT(outcome(), HasSubstr("frames ended: no replacement"));
    EXPECT_TRUE(waitUntil([&] { return buffers() == kCachedSlots; }));

    const size_t descriptors = descriptorsOf(camera->pid());
    for (int round = 0; round < 20; ++round) {
        startFrames(round % 2 == 0 ? "640x480" : "320x242", "streams=2 fps=200 count=6", "");
        ASSERT_THAT(outcome(), HasSubstr("frames ended: well")) << "round " << round;
        endAppsFrames();
    }
    // What the last round released goes when the service and the bus have said so.
    EXPECT_TRUE(waitUntil([&] { return descriptorsOf(camera->pid()) == descriptors; }))
        << descriptors << " became " << descriptorsOf(camera->pid());
}

// --- Hostile peers ---

namespace bus = vel::desktop_bus;
using vel::queue_channel::Operation;
using vel::queue_channel::Reply;
using vel::queue_channel::Request;

// Channels to a queue of another process, as many as that process gives and at most 1000.
std::vector<RawChannelEnd> openChannels(sdbus::IConnection& connection, const std::string& busName,
                                        const std::string& path) {
    const auto object = sdbus::createProxy(connection, busName, path);
    std::vector<RawChannelEnd> channels;
    const auto openOne = [&] {
        sdbus::UnixFd channel;
        object->callMethod(bus::kOpenChannel).onInterface(bus::kProducerInterface).storeResultsTo(channel);
        channels.emplace_back(android::base::unique_fd(channel.release()));
    };
    EXPECT_THROW(openOne(), sdbus::Error) << "it holds no reference";
    object->callMethod(bus::kAcquire).onInterface(bus::kReferenceInterface);
    try {
        while (channels.size() < 1000)
            openOne();
    } catch (const sdbus::Error&) {
    }
    return channels;
}

// The camera server owns the reader of the replacements, the application the queue of the captures.
TEST_F(FramesBetweenProcesses, GoOnWhateverAHostileClientSends) {
    startFrames("64x48", "streams=2 fps=100", "");
    ASSERT_TRUE(camera->waitForLine("frames so far: ")) << "every queue has its channel";
    for (const auto& [name, program] : {std::pair("HAL", camera.get()), std::pair("APP", app.get())}) {
        const std::string set = name + std::string(" surface-set IMG_SUB ");
        const std::string line = service->waitForLine(set).value_or("");
        std::istringstream words(line.substr(line.find(set) + set.size()));
        std::string busName, path;
        words >> busName >> path;
        const size_t sockets = descriptorsOf(program->pid(), "socket:");
        {
            const auto connection = sdbus::createSessionBusConnectionWithAddress(bus.address());
            std::vector<RawChannelEnd> channels = openChannels(*connection, busName, path);
            EXPECT_THAT(channels.size(), AllOf(Ge(16u), Le(64u))) << name;
            const Request request(Operation::GET_UNIQUE_ID);
            for (size_t i = 0; i < channels.size(); ++i) {
                if (i % 4 == 0) channels[i].send(Request(Operation{}));
                if (i % 4 == 1) channels[i].send(request, 0, std::vector<int>(8, STDERR_FILENO));
                for (int n = 0; i % 4 == 2 && n < 100000 && channels[i].send(request); ++n)
                    continue;
            }
        }
        EXPECT_TRUE(waitUntil([&, pid = program->pid()] { return descriptorsOf(pid, "socket:") <= sockets; }))
            << name;
    }
    camera->writeLine("frames end");
    EXPECT_THAT(outcome(), HasSubstr("frames ended: well"));
}

// An application on the bus whose surface keeps to the bus's rules, and to no channel's.
class HostileApplication {
  public:
    explicit HostileApplication(const std::string& busAddress)
        : mConnection(sdbus::createSessionBusConnectionWithAddress(busAddress)),
          mSurface(sdbus::createObject(*mConnection, "/hostile")) {
        mSurface->registerMethod(bus::kOpenChannel)
            .onInterface(bus::kProducerInterface)
            .implementedAs([this] {
                if (mIsOpen.exchange(true)) throw sdbus::Error(bus::kErrorFailed, "one is enough");
                android::base::unique_fd other;
                mOpened.set_value(RawChannelEnd::openPair(&other));
                return sdbus::UnixFd(other.release(), sdbus::adopt_fd);
            });
        for (const char* method : {bus::kAcquire, bus::kRelease})
            mSurface->registerMethod(method).onInterface(bus::kReferenceInterface).implementedAs([] {});
        mSurface->finishRegistration();
        mConnection->enterEventLoopAsync();
        constexpr uint8_t kApplication = 0;
        using Surface = sdbus::Struct<std::string, sdbus::ObjectPath>;
        sdbus::createProxy(*mConnection, bus::kServiceName, bus::kServicePath)
            ->callMethod(bus::kSetSurface)
            .onInterface(bus::kServiceInterface)
            .withArguments(kApplication, Surface(mConnection->getUniqueName(), "/hostile"));
    }
    ~HostileApplication() { mConnection->leaveEventLoop(); }

    // This end of the only channel to the surface.
    std::future<RawChannelEnd> opened() { return mOpened.get_future(); }

  private:
    const std::unique_ptr<sdbus::IConnection> mConnection;
    const std::unique_ptr<sdbus::IObject> mSurface;
    std::promise<RawChannelEnd> mOpened;
    std::atomic<bool> mIsOpen{false};
};

// It plays the queue of the preview: answers as it should up to an operation, and there as it should not.
TEST_F(FramesBetweenProcesses, AreReplacedAfterAHostileApplication) {
    struct Deed {
        Operation at;
        std::function<void(RawChannelEnd&, Reply)> answer;
    };
    const Deed deeds[] = {
        {Operation::CONNECT,
         [](RawChannelEnd& channel, Reply reply) {
             reply.version = 0;
             channel.send(reply);
         }},
        {Operation::DEQUEUE_BUFFER, [](RawChannelEnd&, Reply) {}},
        {Operation::DEQUEUE_BUFFER,
         [](RawChannelEnd& channel, Reply reply) {
             while (channel.send(reply))
                 ++reply.number;
         }},
        {Operation::REQUEST_BUFFER,
         [](RawChannelEnd& channel, Reply reply) {
             reply.attributes.width = reply.attributes.height = reply.attributes.stride = 1u << 31;
             const android::base::unique_fd memory(memfd_create("small", MFD_CLOEXEC));
             channel.send(reply, 0, {memory});
         }},
    };
    for (const Deed& deed : deeds) {
        HostileApplication application(bus.address());
        std::future<RawChannelEnd> opened = application.opened();
        camera->writeLine("frames 0 size=64x48 fps=100");
        ASSERT_EQ(opened.wait_for(kLimit), std::future_status::ready);
        {
            RawChannelEnd channel = opened.get();
            Reply reply;
            for (Request request; channel.receive(request) > 0 && request.operation != deed.at;) {
                reply.operation = request.operation;
                reply.number = request.number;
                reply.status = request.operation == Operation::DEQUEUE_BUFFER ? 1 : 0;  // it needs a buffer
                channel.send(reply);
            }
            reply.operation = deed.at;
            ++reply.number;
            deed.answer(channel, reply);
        }
        ASSERT_TRUE(camera->waitForLine("frames of 64x48 ready"));
        configure("64x48", "");
        EXPECT_TRUE(camera->waitForLine("frames so far: "));
        camera->writeLine("frames end");
        EXPECT_THAT(outcome(), HasSubstr("frames ended: well"));
        app->writeLine("frames end");
        ASSERT_TRUE(app->waitForLine("frames ended: "));
    }
}

// --- The run with files ---

constexpr char kHeader[] = "YUV4MPEG2 W64 H48 F25:1\n";

std::string frameOf(char value = 'x') {
    return "FRAME\n" + std::string(vel::sim::frameBytes({64, 48}), value);
}

// That clips are decoded is tested with the video input.
TEST(ARunWithFiles, ReplacesEveryFrameOnceAndInOrder) {
    const TemporaryFolder folder;
    std::string frames;
    for (int frame = 0; frame < 50; ++frame)
        frames += frameOf(static_cast<char>('A' + frame));
    const auto run = startProgram({"desktop_run", "--input", folder.write("input", kHeader + frames),
                                   "--output", folder.path("replaced.y4m"), "--effect", "none"});
    ASSERT_EQ(run->wait(kLimit), 0);
    const std::string output = folder.read("replaced.y4m");
    EXPECT_TRUE(output.substr(output.find('\n') + 1) == frames) << output.size();
}

TEST(ARunWithFiles, ThatCannotBeReadFailsAndLeavesNothing) {
    const TemporaryFolder folder;
    const std::string output = folder.path("replaced.y4m");
    const std::string cut = folder.write("cut", kHeader + frameOf() + frameOf().substr(0, 999));
    for (const std::string& input : {folder.path("absent"), folder.write("no video", "text"), cut}) {
        EXPECT_EQ(startProgram({"desktop_run", "--input", input, "--output", output})->wait(kLimit), 1);
        EXPECT_FALSE(std::filesystem::exists(output)) << input;
    }
}

TEST(ARunWithFiles, EndsWhenAPeerHangsOrIsGone) {
    const std::pair<const char*, std::string> scripts[] = {
        {"camera_server",  // frames never reach it
         "grep --line-buffered -v ^frames | '" + programPath("camera_server") + "' \"$@\"\n"},
        {"desktop_service", "exit 1\n"}};
    for (const auto& [altered, script] : scripts) {
        const TemporaryFolder programs;
        for (const char* name : {"desktop_service", "camera_server", "desktop_app"})
            if (name != std::string(altered))
                std::filesystem::create_symlink(programPath(name), programs.path(name));
        std::filesystem::permissions(programs.write(altered, "#!/bin/sh\n" + script),
                                     std::filesystem::perms::owner_all);
        const auto run = startProgram({"desktop_run", "--programs", programs.path(""), "--patience", "2",
                                       "--input", programs.write("input", kHeader + frameOf())});
        EXPECT_EQ(run->wait(8s), 1) << altered;
    }
}

// Frames on standard input, whose end the run never sees.
TEST(ARunWithFiles, ThatIsInterruptedLeavesNoOutput) {
    std::string frames = kHeader;
    for (int frame = 0; frame < 5; ++frame)
        frames += frameOf();
    for (const int signal : {SIGINT, SIGTERM}) {
        const TemporaryFolder folder;
        const std::string output = folder.path("replaced.y4m");
        const auto run = startProgram({"desktop_run", "--input", "-", "--output", output});
        ASSERT_TRUE(run->writeLine(frames + "FRAME"));
        ASSERT_TRUE(waitUntil([&] {
            std::error_code absent;
            const uintmax_t size = std::filesystem::file_size(output, absent);
            return !absent && size > 5 * vel::sim::frameBytes({64, 48});
        }));
        run->kill(signal);
        EXPECT_EQ(run->wait(kLimit), 130) << signal;
        EXPECT_THAT(folder.names(), IsEmpty()) << signal;
    }
}

}  // namespace
