#include <dirent.h>
#include <gtest/gtest.h>
#include <gui/bufferqueue/1.0/H2BGraphicBufferProducer.h>
#include <hidl/HidlTransportSupport.h>
#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>
#include <sdbus-c++/sdbus-c++.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <system/window.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <future>
#include <iostream>
#include <map>
#include <sstream>

#include "ChildProcess.h"
#include "ConsumerQueue.h"
#include "DesktopBusNames.h"
#include "PrivateBus.h"
#include "Programs.h"
#include "SignalFence.h"
#include "WaitUntil.h"

using namespace android;
using android::hardware::graphics::bufferqueue::V1_0::utils::H2BGraphicBufferProducer;
using korvanta::hardware::camera::desktop::V2_0::ClientType;
using korvanta::hardware::camera::desktop::V2_0::ICameraDesktop;
using vel::sim::ChildProcess;
using vel::sim::PrivateBus;
namespace bus = vel::desktop_bus;

namespace {

constexpr ClientType kType = ClientType::CLIENT_IMG_SUB;
constexpr int kApi = NATIVE_WINDOW_API_CAMERA;
constexpr uint32_t kWidth = 320, kHeight = 240, kUsage = GRALLOC_USAGE_SW_WRITE_OFTEN;
constexpr size_t kBytes = kWidth * kHeight * 4;
constexpr uint32_t kFinalWord = kBytes / 4 - 1;

using Producer = IGraphicBufferProducer;
using LocalProducer = TWGraphicBufferProducer<HGraphicBufferProducer>;

// Tells memory apart over all processes.
ino_t inodeOf(const sp<GraphicBuffer>& buffer) {
    struct stat status = {};
    return fstat(buffer->handle->data[0], &status) == 0 ? status.st_ino : 0;
}

uint32_t* pixelsOf(const sp<GraphicBuffer>& buffer, uint32_t usage) {
    void* address = nullptr;
    return buffer->lock(usage, &address) == OK ? static_cast<uint32_t*>(address) : nullptr;
}

size_t openDescriptors() {
    DIR* const folder = opendir("/proc/self/fd");
    size_t count = 0;
    while (readdir(folder) != nullptr)
        ++count;
    closedir(folder);
    return count;
}

sp<Producer> borrow(const sp<ICameraDesktop>& service) {
    const sp<HGraphicBufferProducer> surface = service->getSurface(kType).withDefault(nullptr);
    return surface != nullptr ? new H2BGraphicBufferProducer(surface) : nullptr;
}

status_t connect(const sp<Producer>& producer) {
    Producer::QueueBufferOutput output;
    return producer->connect(nullptr, kApi, false, &output);
}

status_t dequeue(const sp<Producer>& producer, int* slot) {
    sp<Fence> fence;
    return producer->dequeueBuffer(slot, &fence, kWidth, kHeight, PIXEL_FORMAT_RGBA_8888, kUsage, nullptr,
                                   nullptr);
}

status_t queue(const sp<Producer>& producer, int slot, const sp<Fence>& fence = Fence::NO_FENCE,
               int64_t timestamp = 0) {
    Producer::QueueBufferOutput output;
    return producer->queueBuffer(
        slot, {timestamp, false, HAL_DATASPACE_ARBITRARY, Rect(kWidth, kHeight), 0, 0, fence}, &output);
}

// Dequeues a slot without a buffer and gets one for it.
sp<GraphicBuffer> dequeueNew(const sp<Producer>& producer, int* slot) {
    sp<GraphicBuffer> buffer;
    EXPECT_EQ(dequeue(producer, slot), Producer::BUFFER_NEEDS_REALLOCATION);
    EXPECT_EQ(producer->requestBuffer(*slot, &buffer), OK);
    return buffer;
}

// A process at the other end of a queue. It obeys each line of its input, then says "did <verb>" and what
// came of it:
//
//   own           sets a surface with a queue behind it
//   disown        sets no surface instead
//   acquire       waits for a frame and its fence: <inode> <timestamp> <first word> <last word>
//   release       releases the frame acquired first
//   abandon       ends the consumer
//   take <n>      connects to the surface and dequeues n slots: <statuses>
//   descriptors   <number of open ones>
class Peer {
  public:
    void obey(const std::string& line) {
        std::istringstream words(line);
        std::string verb;
        int count = 0;
        words >> verb >> count;
        mAnswer.str("");
        if (verb == "own") own();
        if (verb == "disown") (void)mService->setSurface(kType, nullptr).isOk();
        if (verb == "acquire") acquire();
        if (verb == "release") {
            mQueue->consumer->releaseBuffer(mHeld.front());
            mHeld.pop_front();
        }
        if (verb == "abandon") mQueue->consumer->abandon();
        if (verb == "take") take(count);
        if (verb == "descriptors") mAnswer << ' ' << openDescriptors();
        std::cout << "did " << verb << mAnswer.str() << std::endl;
    }

  private:
    void own() {
        mQueue = std::make_unique<ConsumerQueue>();
        (void)mService->setSurface(kType, mQueue->surface).isOk();
    }

    void acquire() {
        BufferItem item;
        while (mQueue->consumer->acquireBuffer(&item, 0) != OK)
            usleep(1000);
        const uint32_t* const pixels = pixelsOf(item.mGraphicBuffer, GRALLOC_USAGE_SW_READ_OFTEN);
        mAnswer << ' ' << inodeOf(item.mGraphicBuffer) << ' ' << item.mTimestamp << ' ' << pixels[0] << ' '
                << pixels[kFinalWord];
        item.mGraphicBuffer->unlock();
        mHeld.push_back(item);
    }

    void take(int count) {
        mProducer = borrow(mService);
        mAnswer << ' ' << connect(mProducer);
        for (int i = 0, slot = -1; i < count; ++i)
            mAnswer << ' ' << dequeue(mProducer, &slot);
    }

    const sp<ICameraDesktop> mService = ICameraDesktop::tryGetService("default", false);
    std::unique_ptr<ConsumerQueue> mQueue;
    std::deque<BufferItem> mHeld;
    sp<Producer> mProducer;
    std::ostringstream mAnswer;
};

class ARemoteProducer : public testing::Test {
  protected:
    void SetUp() override {
        setenv(vel::desktop_bus::kAddressVariable, mBus.address().c_str(), 1);
        mServiceProcess = startService(mBus.address());
        // The connection to the bus of the test before ends in its own time.
        ASSERT_TRUE(waitUntil(
            [this] { return (mService = ICameraDesktop::tryGetService("default", false)) != nullptr; }));
        mPeer = startProgram({"/proc/self/exe", "--peer"});
    }

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

    sp<Producer> borrowFromPeer() {
        tell("own");
        return borrow(mService);
    }

    PrivateBus mBus;
    std::unique_ptr<ChildProcess> mServiceProcess;
    std::unique_ptr<ChildProcess> mPeer;
    sp<ICameraDesktop> mService;
};

TEST_F(ARemoteProducer, CarriesFramesWithoutCopyingThem) {
    const sp<Producer> producer = borrowFromPeer();
    ASSERT_NE(producer, nullptr);
    int slot = -1;
    EXPECT_EQ(dequeue(producer, &slot), NO_INIT) << "not connected";
    ASSERT_EQ(connect(producer), OK);
    EXPECT_EQ(connect(producer), BAD_VALUE);
    ASSERT_EQ(producer->setMaxDequeuedBufferCount(3), OK);

    std::map<int, sp<GraphicBuffer>> buffers;
    for (uint32_t frame = 1; frame <= 12; ++frame) {
        const status_t flags = dequeue(producer, &slot);
        ASSERT_GE(flags, 0);
        EXPECT_EQ(flags == Producer::BUFFER_NEEDS_REALLOCATION, buffers.count(slot) == 0)
            << "memory travels once a slot";
        if (flags != OK) {
            ASSERT_EQ(producer->requestBuffer(slot, &buffers[slot]), OK);
        }
        const sp<GraphicBuffer> buffer = buffers[slot];
        uint32_t* const pixels = pixelsOf(buffer, kUsage);
        ASSERT_NE(pixels, nullptr);
        pixels[0] = frame;
        pixels[kFinalWord] = frame * 3;
        buffer->unlock();
        ASSERT_EQ(queue(producer, slot, Fence::NO_FENCE, frame * 1'000'000'000'000), OK);
        std::ostringstream expected;
        expected << inodeOf(buffer) << ' ' << frame << "000000000000 " << frame << ' ' << frame * 3;
        EXPECT_EQ(tell("acquire"), expected.str());
        tell("release");
    }
    EXPECT_EQ(producer->cancelBuffer(99, Fence::NO_FENCE), BAD_VALUE);
    EXPECT_EQ(producer->setMaxDequeuedBufferCount(0), BAD_VALUE);
    tell("abandon");
    EXPECT_EQ(dequeue(producer, &slot), NO_INIT);
    EXPECT_EQ(producer->disconnect(kApi), OK);
}

TEST_F(ARemoteProducer, CarriesAFenceThatSignalsLater) {
    const sp<Producer> producer = borrowFromPeer();
    ASSERT_EQ(connect(producer), OK);
    int slot = -1;
    const sp<GraphicBuffer> buffer = dequeueNew(producer, &slot);
    SignalFence fence;
    ASSERT_EQ(queue(producer, slot, fence.fence()), OK);
    mPeer->writeLine("acquire");
    EXPECT_FALSE(mPeer->waitForLine("did acquire", std::chrono::milliseconds(200)));
    *pixelsOf(buffer, kUsage) = 4711;
    fence.signal();
    EXPECT_NE(hear("acquire").find(" 4711 "), std::string::npos);

    // And one the other way, with a slot that is given back unused.
    ASSERT_GE(dequeue(producer, &slot), 0);
    SignalFence unused;
    ASSERT_EQ(producer->cancelBuffer(slot, unused.fence()), OK);
    sp<Fence> returned;
    ASSERT_GE(producer->dequeueBuffer(&slot, &returned, kWidth, kHeight, PIXEL_FORMAT_RGBA_8888, kUsage,
                                      nullptr, nullptr),
              0);
    EXPECT_EQ(returned->wait(0), -ETIME);
    unused.signal();
    EXPECT_EQ(returned->wait(30000), OK);
}

// A dequeue that waits, on a thread of its own: the peer's consumer holds one frame, and two wait for it.
class ABlockedDequeue : public ARemoteProducer {
  protected:
    void SetUp() override {
        ARemoteProducer::SetUp();
        mProducer = borrowFromPeer();
        ASSERT_EQ(connect(mProducer), OK);
        for (int frame = 0, slot = -1; frame < 2; ++frame) {
            dequeueNew(mProducer, &slot);
            ASSERT_EQ(queue(mProducer, slot), OK);
        }
        tell("acquire");
        mDequeued = std::async(std::launch::async, [this] {
            int slot = -1;
            return dequeue(mProducer, &slot);
        });
        ASSERT_EQ(mDequeued.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    }

    sp<Producer> mProducer;
    std::future<status_t> mDequeued;
};

TEST_F(ABlockedDequeue, LetsOtherCallsPassAndEndsWhenTheConsumerReleases) {
    int value = 0;
    EXPECT_EQ(mProducer->query(NATIVE_WINDOW_MIN_UNDEQUEUED_BUFFERS, &value), OK);
    EXPECT_TRUE(mService->getSurface(kType).isOk());
    tell("release");
    EXPECT_EQ(mDequeued.get(), OK);
}

TEST_F(ABlockedDequeue, EndsWhenTheConsumerOrItsProcessGoes) {
    mPeer->kill(SIGKILL);
    EXPECT_EQ(mDequeued.get(), DEAD_OBJECT);
    EXPECT_EQ(mProducer->disconnect(kApi), DEAD_OBJECT) << "and so does every later call";
    ASSERT_TRUE(mServiceProcess->waitForLine("died surface IMG_SUB dropped"));
    EXPECT_EQ(borrow(mService), nullptr) << "the queues of a dead process are gone";
}

TEST_F(ABlockedDequeue, EndsWithTheBus) {
    mBus.kill();
    EXPECT_EQ(mDequeued.get(), DEAD_OBJECT);
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
        mPeer = startProgram({"/proc/self/exe", "--peer"});
        mPeer->writeLine(waiting ? "take 3" : "take 2");  // of the two slots that there are
        ASSERT_TRUE(waitUntil([&] { return surface->begun == (waiting ? 3 : 2); }));
        if (!waiting) {
            EXPECT_EQ(hear("take"), "0 1 1");
        }
        mPeer->kill(SIGKILL);
        ASSERT_TRUE(waitUntil([&] { return surface->ended == surface->begun; })) << "nobody waits for ever";
        ASSERT_TRUE(waitUntil([&] { return connect(local.producer) == OK; }));
        local.producer->setDequeueTimeout(0);
        int slot = -1;
        EXPECT_EQ(dequeue(local.producer, &slot), Producer::BUFFER_NEEDS_REALLOCATION);
        EXPECT_EQ(dequeue(local.producer, &slot), Producer::BUFFER_NEEDS_REALLOCATION);
        EXPECT_EQ(dequeue(local.producer, &slot), TIMED_OUT);
        local.producer->setDequeueTimeout(-1);
        EXPECT_EQ(local.producer->disconnect(kApi), OK);
    }
    mPeer = startProgram({"/proc/self/exe", "--peer"});
    EXPECT_EQ(tell("take 1"), "0 1") << "another process may follow";
}

TEST_F(ARemoteProducer, KeepsItsIdentity) {
    ConsumerQueue local;
    const wp<HGraphicBufferProducer> weak = local.surface;
    for (int round = 0; round < 3; ++round) {
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

    mPeer = startProgram({"/proc/self/exe", "--peer"});
    tell("own");
    const sp<HGraphicBufferProducer> one = mService->getSurface(kType).withDefault(nullptr);
    const sp<HGraphicBufferProducer> other = mService->getSurface(kType).withDefault(nullptr);
    ASSERT_NE(one, nullptr);
    EXPECT_TRUE(one->isRemote());
    EXPECT_TRUE(hardware::interfacesEqual(one, other));
    tell("disown");
    EXPECT_TRUE(one->ping().isOk()) << "a proxy keeps its object";
}

TEST_F(ARemoteProducer, IsNotHarmedByAnotherClient) {
    const sp<Producer> producer = borrowFromPeer();
    const auto connection = sdbus::createSessionBusConnectionWithAddress(mBus.address());
    const auto service = sdbus::createProxy(*connection, bus::kServiceName, bus::kServicePath);
    sdbus::Struct<std::string, sdbus::ObjectPath> surface;
    service->callMethod(bus::kGetSurface)
        .onInterface(bus::kServiceInterface)
        .withArguments(static_cast<uint8_t>(kType))
        .storeResultsTo(surface);
    const auto object = sdbus::createProxy(*connection, std::get<0>(surface), std::get<1>(surface));
    const auto openChannel = [&] {
        sdbus::UnixFd channel;
        object->callMethod(bus::kOpenChannel).onInterface(bus::kProducerInterface).storeResultsTo(channel);
        return channel;
    };
    EXPECT_THROW(openChannel(), sdbus::Error) << "it holds no reference";
    object->callMethod(bus::kAcquire).onInterface(bus::kReferenceInterface);
    const sdbus::UnixFd channel = openChannel();
    EXPECT_EQ(send(channel.get(), "nonsense", 8, MSG_NOSIGNAL), 8);
    char reply;
    EXPECT_EQ(recv(channel.get(), &reply, 1, 0), 0);
    EXPECT_EQ(connect(producer), OK);
}

TEST_F(ARemoteProducer, LeavesNoDescriptorsBehind) {
    tell("own");
    SignalFence fence;
    fence.signal();
    const auto useProducer = [&] {
        const sp<Producer> producer = borrow(mService);
        ASSERT_EQ(connect(producer), OK);
        int slot = -1;
        ASSERT_NE(pixelsOf(dequeueNew(producer, &slot), kUsage), nullptr);
        ASSERT_EQ(producer->cancelBuffer(slot, fence.fence()), OK);
        ASSERT_EQ(producer->disconnect(kApi), OK);
    };
    useProducer();
    const size_t here = openDescriptors();
    const int there = std::stoi(tell("descriptors"));
    for (int round = 0; round < 500; ++round)
        useProducer();
    EXPECT_TRUE(waitUntil([&] { return openDescriptors() <= here; }))
        << "the bus's thread keeps a reply a moment";
    EXPECT_TRUE(waitUntil([&] { return std::stoi(tell("descriptors")) <= there; }));
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
