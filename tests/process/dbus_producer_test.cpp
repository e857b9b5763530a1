// What the processes at both ends mean to a buffer queue. What crosses its channel is tested in one process.

#include <gtest/gtest.h>
#include <gui/bufferqueue/1.0/H2BGraphicBufferProducer.h>
#include <hidl/HidlTransportSupport.h>
#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>
#include <signal.h>
#include <system/window.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <iostream>
#include <sstream>

#include "ChildProcess.h"
#include "ConsumerQueue.h"
#include "DesktopBusNames.h"
#include "PrivateBus.h"
#include "Programs.h"
#include "WaitUntil.h"

using namespace android;
using android::hardware::graphics::bufferqueue::V1_0::utils::H2BGraphicBufferProducer;
using korvanta::hardware::camera::desktop::V2_0::ClientType;
using korvanta::hardware::camera::desktop::V2_0::ICameraDesktop;
using vel::sim::ChildProcess;
using vel::sim::PrivateBus;

namespace {

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

// A process at the other end of a queue. It obeys each line of its input, then says "did <verb>" and what
// came of it:
//
//   own        sets a surface with a queue of two slots behind it
//   disown     sets no surface instead
//   take <n>   connects to the surface and dequeues n slots: <statuses>
class Peer {
  public:
    void obey(const std::string& line) {
        std::istringstream words(line);
        std::string verb, results;
        int count = 0;
        words >> verb >> count;
        if (verb == "own") (void)mService->setSurface(kType, mQueue.surface).isOk();
        if (verb == "disown") (void)mService->setSurface(kType, nullptr).isOk();
        if (verb == "take") results = take(count);
        std::cout << "did " << verb << results << std::endl;
    }

  private:
    std::string take(int count) {
        mProducer = borrow(mService);
        std::string statuses = ' ' + std::to_string(connect(mProducer));
        for (int i = 0; i < count; ++i)
            statuses += ' ' + std::to_string(dequeue(mProducer));
        return statuses;
    }

    const sp<ICameraDesktop> mService = ICameraDesktop::tryGetService("default", false);
    const ConsumerQueue mQueue;
    sp<Producer> mProducer;
};

class ARemoteProducer : public testing::Test {
  protected:
    void SetUp() override {
        setenv(vel::desktop_bus::kAddressVariable, mBus.address().c_str(), 1);
        mServiceProcess = startService(mBus.address());
        // The connection to the bus of the test before ends in its own time.
        ASSERT_TRUE(waitUntil(
            [this] { return (mService = ICameraDesktop::tryGetService("default", false)) != nullptr; }));
        startPeer();
    }
    void startPeer() { mPeer = startProgram({"/proc/self/exe", "--peer"}); }

    // What came of it at the peer.
    std::string tell(const std::string& line) {
        mPeer->writeLine(line);
        return hear(line.substr(0, line.find(' ')));
    }
    std::string hear(const std::string& verb) {
        const std::string expected = "did " + verb;
        const auto said = mPeer->waitForLine(expected);
        EXPECT_TRUE(said) << "the peer did not " << verb;
        return said ? said->substr(std::min(said->size(), expected.size() + 1)) : "";
    }

    PrivateBus mBus;
    std::unique_ptr<ChildProcess> mServiceProcess;
    std::unique_ptr<ChildProcess> mPeer;
    sp<ICameraDesktop> mService;
};

TEST_F(ARemoteProducer, EndsABlockedDequeueWithItsProcessOrTheBus) {
    for (const bool busDies : {false, true}) {
        if (busDies) startPeer();
        tell("own");
        const sp<Producer> producer = borrow(mService);
        ASSERT_EQ(connect(producer), OK);
        for (int taken = 0; taken < 2; ++taken)
            ASSERT_EQ(dequeue(producer), Producer::BUFFER_NEEDS_REALLOCATION);
        auto dequeued = std::async(std::launch::async, [&] { return dequeue(producer); });
        ASSERT_EQ(dequeued.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
        if (busDies) {
            mBus.kill();
        } else {
            mPeer->kill(SIGKILL);
        }
        EXPECT_EQ(dequeued.get(), DEAD_OBJECT);
        EXPECT_EQ(producer->disconnect(kApi), DEAD_OBJECT) << "and so does every later call";
        if (!busDies) {
            ASSERT_TRUE(mServiceProcess->waitForLine("died surface IMG_SUB dropped"));
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

TEST_F(ARemoteProducer, ThatDiesFreesWhatItHeld) {
    const ConsumerQueue local;
    for (const bool waiting : {false, true}) {
        const sp<CountingProducer> surface = new CountingProducer(local.producer);
        ASSERT_TRUE(mService->setSurface(kType, surface).isOk());
        startPeer();
        mPeer->writeLine(waiting ? "take 3" : "take 2");  // of the two slots that there are
        ASSERT_TRUE(waitUntil([&] { return surface->begun == (waiting ? 3 : 2); }));
        if (!waiting) {
            EXPECT_EQ(hear("take"), "0 1 1");
        }
        mPeer->kill(SIGKILL);
        ASSERT_TRUE(waitUntil([&] { return surface->ended == surface->begun; })) << "nobody waits for ever";
        ASSERT_TRUE(waitUntil([&] { return connect(local.producer) == OK; }));
        local.producer->setDequeueTimeout(0);
        EXPECT_EQ(dequeue(local.producer), Producer::BUFFER_NEEDS_REALLOCATION);
        EXPECT_EQ(dequeue(local.producer), Producer::BUFFER_NEEDS_REALLOCATION);
        EXPECT_EQ(dequeue(local.producer), TIMED_OUT);
        local.producer->setDequeueTimeout(-1);
        EXPECT_EQ(local.producer->disconnect(kApi), OK);
    }
    startPeer();
    EXPECT_EQ(tell("take 1"), "0 1") << "another process may follow";
}

TEST_F(ARemoteProducer, KeepsItsIdentity) {
    ConsumerQueue local;
    const wp<HGraphicBufferProducer> weak = local.surface;
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(mService->setSurface(kType, local.surface).isOk());
        EXPECT_EQ(tell("take 0"), round == 0 ? "0" : std::to_string(BAD_VALUE));
        EXPECT_EQ(mService->getSurface(kType).withDefault(nullptr).get(), local.surface.get());
        EXPECT_EQ(local.producer->disconnect(kApi, Producer::DisconnectMode::AllLocal), OK)
            << "leaves the peer's connection alone";
    }
    ASSERT_TRUE(mService->setSurface(kType, nullptr).isOk());
    EXPECT_EQ(mService->getSurface(kType).withDefault(nullptr), nullptr);
    local.surface = nullptr;
    EXPECT_NE(weak.promote(), nullptr) << "the peer still holds it";
    mPeer->kill(SIGKILL);
    EXPECT_TRUE(waitUntil([&] { return weak.promote() == nullptr; }));

    startPeer();
    tell("own");
    const sp<HGraphicBufferProducer> one = mService->getSurface(kType).withDefault(nullptr);
    const sp<HGraphicBufferProducer> other = mService->getSurface(kType).withDefault(nullptr);
    ASSERT_NE(one, nullptr);
    EXPECT_TRUE(one->isRemote());
    EXPECT_TRUE(hardware::interfacesEqual(one, other));
    tell("disown");
    EXPECT_TRUE(one->ping().isOk()) << "a proxy keeps its object";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::string(argv[1]) == "--peer") {
        static Peer& peer = *new Peer;  // the bus's threads outlast main()
        for (std::string line; std::getline(std::cin, line);)
            peer.obey(line);
        return EXIT_SUCCESS;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
