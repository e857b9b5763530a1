// Frames through image substitution, between the programs on a private bus.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
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

std::vector<std::string> descriptorsOf(pid_t pid) {
    std::vector<std::string> targets;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
        std::error_code closedMeanwhile;
        targets.push_back(std::filesystem::read_symlink(entry, closedMeanwhile));
    }
    return targets;
}

// Each buffer that a process has in its hands is one descriptor of shared memory.
size_t buffersOf(pid_t pid) {
    const std::vector<std::string> targets = descriptorsOf(pid);
    return static_cast<size_t>(std::count_if(targets.begin(), targets.end(), [](const std::string& target) {
        return target.find("memfd:") != std::string::npos;
    }));
}

// A stream's line of the closing table.
struct StreamRow {
    unsigned long long sent = 0, inTime = 0, repeated = 0, late = 0, dropped = 0, copies = 0;
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
    // An application that gives no frame back gets a buffer of every slot of both its queues. Those of the
    // frame path stay cached, so that busy rounds later need no more.
    void fillEverySlot() {
        startFrames("64x48", "fps=30 count=60", "hold=0");
        ASSERT_TRUE(waitUntil([&] { return buffersOf(camera->pid()) == 2 * kCachedSlots; }));
        app->writeLine("frames end");
        ASSERT_TRUE(app->waitForLine("frames ended: "));
        EXPECT_THAT(outcome(), HasSubstr("frames ended: no replacement"));
        EXPECT_TRUE(waitUntil([&] { return buffersOf(camera->pid()) == kCachedSlots; }));
    }
    std::string outcome() { return camera->waitForLine("frames ended: ", kLimit).value_or("it hangs"); }
    StreamRow row(int stream) {
        StreamRow read;
        const std::string name = "stream " + std::to_string(stream) + " ";
        const std::string line = camera->waitForLine(name, kLimit).value_or("");
        const size_t at = line.find(name);
        EXPECT_NE(at, std::string::npos);
        if (at == std::string::npos) return read;
        EXPECT_EQ(std::sscanf(line.c_str() + at + name.size(), "%llu %llu %llu %llu %llu %llu", &read.sent,
                              &read.inTime, &read.repeated, &read.late, &read.dropped, &read.copies),
                  6);
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
    app->writeLine("frames end");
    EXPECT_THAT(app->waitForLine("frames ended: ").value_or(""), HasSubstr("out of order 0"));
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
        app->kill(SIGKILL);
        app->wait();
        startApp();
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
    app->kill(SIGKILL);
    app->wait();
    startApp();
    configure("64x48", "");
    EXPECT_EQ(row(0).inTime, 30u);
    EXPECT_THAT(outcome(), HasSubstr("frames ended: well"));
    EXPECT_GT(std::filesystem::file_size(file), 30u * 64 * 48 * 3 / 2);
}

// Without what lies beyond the program's addresses: under emulation that is the emulator's.
size_t residentKib(pid_t pid) {
    std::ifstream mappings("/proc/" + std::to_string(pid) + "/smaps");
    bool addressable = false;
    size_t sum = 0;
    for (std::string line; std::getline(mappings, line);) {
        unsigned long long begin = 0, end = 0;
        size_t kib = 0;
        if (std::sscanf(line.c_str(), "%llx-%llx", &begin, &end) == 2) {
            addressable = end - 1 <= UINTPTR_MAX;
        } else if (addressable && std::sscanf(line.c_str(), "Rss: %zu", &kib) == 1) {
            sum += kib;
        }
    }
    return sum;
}

// A frame that stays in each round would make 23 MB.
TEST_F(FramesBetweenProcesses, StartAndStopInChangingSizesWithoutGrowth) {
    constexpr int kWarmUp = 6;
    constexpr int kRounds = 50;
    fillEverySlot();
#ifdef VEL_SANITIZED
    constexpr size_t kMaxGrowthKib = SIZE_MAX / 2;  // the sanitizer keeps freed memory
#else
    constexpr size_t kMaxGrowthKib = 8 * 1024;
#endif
    const size_t descriptors = descriptorsOf(camera->pid()).size();
    size_t memory = 0;
    for (int round = 0; round < kWarmUp + kRounds; ++round) {
        if (round == kWarmUp) memory = residentKib(camera->pid());
        startFrames(round % 2 == 0 ? "640x480" : "320x242", "streams=2 fps=200 count=6", "");
        ASSERT_THAT(outcome(), HasSubstr("frames ended: well")) << "round " << round;
        app->writeLine("frames end");
        ASSERT_TRUE(app->waitForLine("frames ended: "));
    }
    // What the last round released goes when the service and the bus have said so.
    EXPECT_TRUE(waitUntil([&] { return descriptorsOf(camera->pid()).size() == descriptors; }))
        << descriptors << " became " << descriptorsOf(camera->pid()).size();
    EXPECT_THAT(residentKib(camera->pid()), Le(memory + kMaxGrowthKib));
}

// --- Hostile peers ---

namespace bus = vel::desktop_bus;
using android::base::unique_fd;
using vel::queue_channel::Operation;
using vel::queue_channel::Reply;
using vel::queue_channel::Request;
using Surface = sdbus::Struct<std::string, sdbus::ObjectPath>;

// A process on the bus that keeps to the bus's rules, and to no channel's.
class HostilePeer {
  public:
    explicit HostilePeer(const std::string& busAddress)
        : mConnection(sdbus::createSessionBusConnectionWithAddress(busAddress)) {
        mConnection->enterEventLoopAsync();
    }
    ~HostilePeer() { mConnection->leaveEventLoop(); }

    // Channels to the object, as many as its process gives and at most so many.
    std::vector<RawChannelEnd> openChannels(const Surface& surface, size_t most) {
        const auto object = sdbus::createProxy(*mConnection, std::get<0>(surface), std::get<1>(surface));
        object->callMethod(bus::kAcquire).onInterface(bus::kReferenceInterface);
        std::vector<RawChannelEnd> channels;
        try {
            while (channels.size() < most) {
                sdbus::UnixFd channel;
                object->callMethod(bus::kOpenChannel)
                    .onInterface(bus::kProducerInterface)
                    .storeResultsTo(channel);
                channels.emplace_back(unique_fd(channel.release()));
            }
        } catch (const sdbus::Error&) {
        }
        return channels;
    }

    // Takes the place of the application's surface: this end of the only channel to it.
    std::future<RawChannelEnd> offerSurface() {
        mObject = sdbus::createObject(*mConnection, "/hostile");
        mObject->registerMethod(bus::kOpenChannel).onInterface(bus::kProducerInterface).implementedAs([this] {
            if (mIsOpen.exchange(true)) throw sdbus::Error(bus::kErrorFailed, "one is enough");
            unique_fd other;
            mOpened.set_value(RawChannelEnd::openPair(&other));
            return sdbus::UnixFd(other.release(), sdbus::adopt_fd);
        });
        for (const char* method : {bus::kAcquire, bus::kRelease})
            mObject->registerMethod(method).onInterface(bus::kReferenceInterface).implementedAs([] {});
        mObject->finishRegistration();
        constexpr uint8_t kApplication = 0;
        sdbus::createProxy(*mConnection, bus::kServiceName, bus::kServicePath)
            ->callMethod(bus::kSetSurface)
            .onInterface(bus::kServiceInterface)
            .withArguments(kApplication, Surface(mConnection->getUniqueName(), "/hostile"));
        return mOpened.get_future();
    }

  private:
    const std::unique_ptr<sdbus::IConnection> mConnection;
    std::unique_ptr<sdbus::IObject> mObject;
    std::promise<RawChannelEnd> mOpened;
    std::atomic<bool> mIsOpen{false};
};

size_t socketsOf(pid_t pid) {
    const std::vector<std::string> targets = descriptorsOf(pid);
    return static_cast<size_t>(std::count_if(targets.begin(), targets.end(), [](const std::string& target) {
        return target.find("socket:") != std::string::npos;
    }));
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
        const size_t sockets = socketsOf(program->pid());
        {
            HostilePeer peer(bus.address());
            std::vector<RawChannelEnd> channels = peer.openChannels({busName, path}, 1000);
            EXPECT_THAT(channels.size(), AllOf(Ge(16u), Le(64u))) << name;
            const Request request(Operation::GET_UNIQUE_ID);
            for (size_t i = 0; i < channels.size(); ++i) {
                if (i % 4 == 0) channels[i].send(Request(Operation{}));
                if (i % 4 == 1) channels[i].send(request, 0, std::vector<int>(8, STDERR_FILENO));
                for (int n = 0; i % 4 == 2 && n < 100000 && channels[i].send(request); ++n)
                    continue;
            }
        }
        EXPECT_TRUE(waitUntil([&, pid = program->pid()] { return socketsOf(pid) <= sockets; })) << name;
    }
    camera->writeLine("frames end");
    EXPECT_THAT(outcome(), HasSubstr("frames ended: well"));
}

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
             const unique_fd memory(memfd_create("small", MFD_CLOEXEC));
             channel.send(reply, 0, {memory});
         }},
    };
    for (const Deed& deed : deeds) {
        HostilePeer peer(bus.address());
        std::future<RawChannelEnd> opened = peer.offerSurface();
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

// --- The run with files
// ----------------------------------------------------------------------------------------------

bool hasFfmpeg() {
    return std::system("ffmpeg -version >/dev/null 2>&1") == 0;
}

// The sum of each frame of a video, in order.
std::vector<std::string> frameSums(const TemporaryFolder& folder, const std::string& file) {
    const std::string sums = folder.path("sums");
    const std::string command =
        "ffmpeg -v error -y -i '" + file + "' -pix_fmt yuv420p -f framemd5 '" + sums + "'";
    EXPECT_EQ(std::system(command.c_str()), 0);
    std::vector<std::string> all;
    std::ifstream lines(sums);
    for (std::string line; std::getline(lines, line);) {
        if (line[0] != '#') all.push_back(line.substr(line.rfind(',') + 1));
    }
    return all;
}

TEST(ARunWithFiles, ReplacesEveryFrameOfAnEncodedClipOnceAndInOrder) {
    if (!hasFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
    const TemporaryFolder folder;
    const std::string clip = folder.path("a clip.mp4");
    const std::string output = folder.path("replaced.y4m");
    const std::string encode =
        "ffmpeg -v error -f lavfi -i testsrc2=size=640x360:rate=25:duration=4 -c:v libx264 -pix_fmt yuv420p "
        "'" +
        clip + "'";
    ASSERT_EQ(std::system(encode.c_str()), 0);
    const auto run = startProgram({"desktop_run", "--input", clip, "--output", output, "--effect", "none"});
    ASSERT_EQ(run->wait(kLimit), 0);
    const std::vector<std::string> expected = frameSums(folder, clip);
    EXPECT_EQ(expected.size(), 100u);
    EXPECT_EQ(frameSums(folder, output), expected);
}

TEST(ARunWithFiles, ThatCannotBeReadOrWrittenFailsAndLeavesNothing) {
    const TemporaryFolder folder;
    const std::string output = folder.path("replaced.y4m");
    const std::string empty = folder.write("empty", "");
    const std::string noVideo = folder.write("no video", "text");
    const std::string frame = "FRAME\n" + std::string(vel::sim::frameBytes({64, 48}), 'x');
    const std::string cut = folder.write("cut", "YUV4MPEG2 W64 H48 F25:1\n" + frame + frame.substr(0, 999));
    for (const std::string& input : {folder.path("absent"), empty, noVideo, cut}) {
        EXPECT_EQ(startProgram({"desktop_run", "--input", input, "--output", output})->wait(kLimit), 1);
        EXPECT_FALSE(std::filesystem::exists(output)) << input;
    }
    const auto run = startProgram({"desktop_run", "--input", "-", "--output", folder.path("no/folder")});
    run->writeLine("YUV4MPEG2 W64 H48 F25:1");
    EXPECT_EQ(run->wait(kLimit), 1);
}

// Programs of which one is a script of the test's own.
class AlteredPrograms {
  public:
    AlteredPrograms(const std::string& altered, const std::string& script) {
        for (const char* name : {"desktop_service", "camera_server", "desktop_app"}) {
            if (name == altered) continue;
            std::filesystem::create_symlink(programPath(name), mFolder.path(name));
        }
        std::filesystem::permissions(mFolder.write(altered, "#!/bin/sh\n" + script),
                                     std::filesystem::perms::owner_all);
    }
    std::string folder() const { return mFolder.path(""); }

  private:
    const TemporaryFolder mFolder;
};

TEST(ARunWithFiles, EndsWhenAPeerHangsOrIsGone) {
    const TemporaryFolder folder;
    const std::string input = folder.write(
        "input", "YUV4MPEG2 W64 H48 F25:1\nFRAME\n" + std::string(vel::sim::frameBytes({64, 48}), 'x'));
    const AlteredPrograms hung(
        "camera_server",
        "while read -r line; do case \"$line\" in frames*) ;; *) echo \"$line\" ;; esac; done |"
        "exec '" +
            programPath("camera_server") + "' \"$@\"\n");
    const AlteredPrograms gone("desktop_service", "exit 1\n");
    for (const AlteredPrograms* programs : {&hung, &gone}) {
        const auto run = startProgram(
            {"desktop_run", "--programs", programs->folder(), "--patience", "2", "--input", input});
        EXPECT_EQ(run->wait(8s), 1) << (programs == &hung);
    }
}

// Frames on standard input, whose end the run never sees.
TEST(ARunWithFiles, ThatIsInterruptedLeavesNoOutput) {
    std::string frames = "YUV4MPEG2 W64 H48 F25:1\n";
    for (int frame = 0; frame < 5; ++frame)
        frames += "FRAME\n" + std::string(vel::sim::frameBytes({64, 48}), 'x');
    (void)std::signal(SIGHUP, SIG_DFL);  // nohup's tests would pass it on as ignored
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        const TemporaryFolder folder;
        const std::string output = folder.path("replaced.y4m");
        const auto run = startProgram({"desktop_run", "--input", "-", "--output", output});
        ASSERT_TRUE(run->writeLine(frames + "FRAME"));
        ASSERT_TRUE(waitUntil([&] {
            std::error_code ignored;
            return std::filesystem::file_size(output, ignored) != static_cast<uintmax_t>(-1) &&
                   std::filesystem::file_size(output, ignored) > 5 * vel::sim::frameBytes({64, 48});
        }));
        run->kill(signal);
        EXPECT_EQ(run->wait(kLimit), 130) << signal;
        EXPECT_THAT(folder.names(), IsEmpty()) << signal;
    }
}

}  // namespace
