#include <dirent.h>
#include <gtest/gtest.h>
#include <gui/BufferItemConsumer.h>
#include <gui/BufferQueue.h>
#include <gui/bufferqueue/1.0/H2BGraphicBufferProducer.h>
#include <gui/bufferqueue/1.0/WGraphicBufferProducer.h>
#include <hidl/HidlTransportSupport.h>
#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <future>
#include <iostream>
#include <map>
#include <sstream>

#include "ChildProcess.h"
#include "PrivateBus.h"
#include "SignalFence.h"
#include "WaitUntil.h"

using namespace android;  // NOLINT(google-build-using-namespace)
using android::hardware::graphics::bufferqueue::V1_0::utils::H2BGraphicBufferProducer;
using korvanta::hardware::camera::desktop::V2_0::ClientType;
using korvanta::hardware::camera::desktop::V2_0::ICameraDesktop;
using vel::sim::ChildProcess;
using vel::sim::PrivateBus;

namespace {

constexpr ClientType kType = ClientType::CLIENT_IMG_SUB;
constexpr int kApi = NATIVE_WINDOW_API_CAMERA;
constexpr uint32_t kWidth = 320, kHeight = 240, kUsage = GRALLOC_USAGE_SW_WRITE_OFTEN;
constexpr size_t kBytes = kWidth * kHeight * 4;
constexpr uint32_t kFinalWord = kBytes / 4 - 1;

using Producer = IGraphicBufferProducer;
using LocalProducer = TWGraphicBufferProducer<HGraphicBufferProducer>;

struct Queue {
    Queue() {
        sp<IGraphicBufferConsumer> end;
        BufferQueue::createBufferQueue(&producer, &end);
        consumer = new BufferItemConsumer(end, GRALLOC_USAGE_SW_READ_OFTEN, 1);
        surface = new LocalProducer(producer);
    }
    sp<Producer> producer;
    sp<BufferItemConsumer> consumer;
    sp<HGraphicBufferProducer> surface;
};

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

// Hands out memory that its owner may still shrink under whoever maps it.
struct HostileProducer : LocalProducer {
    using LocalProducer::LocalProducer;
    hardware::Return<void> requestBuffer(int32_t slot, requestBuffer_cb _hidl_cb) override {
        return LocalProducer::requestBuffer(slot, [&](int32_t status, const AnwBuffer& buffer) {
            native_handle_t* const handle = native_handle_create(1, 0);
            handle->data[0] = memfd_create("hostile", MFD_CLOEXEC | MFD_ALLOW_SEALING);
            EXPECT_EQ(ftruncate(handle->data[0], kBytes), 0);
            AnwBuffer changed = buffer;
            changed.nativeHandle.setTo(handle, true);
            _hidl_cb(status, changed);
        });
    }
};

// A process at the other end of a queue. It obeys the lines of its input and says what came of them:
//
//   own, own-hostile   sets a surface with a queue behind it; "owned"
//   disown             sets no surface instead; "disowned"
//   acquire            "acquired <inode> <timestamp> <first word> <last word>", its fence waited for
//   release            releases the frame acquired first; "released"
//   abandon            ends the consumer; "abandoned"
//   take <n>           connects to the surface and dequeues n slots; "took <statuses>"
//   descriptors        "descriptors <number of open ones>"
class Peer {
  public:
    void obey(const std::string& line) {
        std::istringstream words(line);
        std::string verb;
        words >> verb;
        if (verb == "own" || verb == "own-hostile") own(verb == "own-hostile");
        if (verb == "disown") {
            (void)mService->setSurface(kType, nullptr).isOk();
            std::cout << "disowned" << std::endl;
        }
        if (verb == "acquire") acquire();
        if (verb == "release") {
            mQueue->consumer->releaseBuffer(mHeld.front());
            mHeld.pop_front();
            std::cout << "released" << std::endl;
        }
        if (verb == "abandon") {
            mQueue->consumer->abandon();
            std::cout << "abandoned" << std::endl;
        }
        if (verb == "take") {
            int count = 0;
            words >> count;
            take(count);
        }
        if (verb == "descriptors") std::cout << "descriptors " << openDescriptors() << std::endl;
    }

  private:
    void own(bool hostile) {
        mQueue = std::make_unique<Queue>();
        if (hostile) mQueue->surface = new HostileProducer(mQueue->producer);
        if (mService->setSurface(kType, mQueue->surface).isOk()) std::cout << "owned" << std::endl;
    }

    void acquire() {
        BufferItem item;
        while (mQueue->consumer->acquireBuffer(&item, 0) != OK)
            usleep(1000);
        const uint32_t* const pixels = pixelsOf(item.mGraphicBuffer, GRALLOC_USAGE_SW_READ_OFTEN);
        std::cout << "acquired " << inodeOf(item.mGraphicBuffer) << ' ' << item.mTimestamp << ' ' << pixels[0]
                  << ' ' << pixels[kFinalWord] << std::endl;
        item.mGraphicBuffer->unlock();
        mHeld.push_back(item);
    }

    void take(int count) {
        mProducer = borrow(mService);
        std::ostringstream statuses;
        statuses << connect(mProducer);
        for (int i = 0, slot = -1; i < count; ++i)
            statuses << ' ' << dequeue(mProducer, &slot);
        std::cout << "took " << statuses.str() << std::endl;
    }

    const sp<ICameraDesktop> mService = ICameraDesktop::tryGetService("default", false);
    std::unique_ptr<Queue> mQueue;
    std::deque<BufferItem> mHeld;
    sp<Producer> mProducer;
};

class ARemoteProducer : public testing::Test {
  protected:
    void SetUp() override {
        setenv("VEL_DESKTOP_BUS_ADDRESS", mBus.address().c_str(), 1);
        mServiceProcess = start({DESKTOP_SERVICE, "--trace", "--bus", mBus.address()});
        ASSERT_TRUE(mServiceProcess->waitForLine("ready"));
        // The connection to the bus of the test before ends in its own time.
        ASSERT_TRUE(waitUntil(
            [this] { return (mService = ICameraDesktop::tryGetService("default", false)) != nullptr; }));
        mPeer = start({"/proc/self/exe", "--peer"});
    }

    std::unique_ptr<ChildProcess> start(std::vector<std::string> command) {
        ChildProcess::Options options;
        options.command = std::move(command);
        return std::make_unique<ChildProcess>(std::move(options));
    }

    // What the peer says, from the second word on.
    std::string tell(const std::string& line, const std::string& expected) {
        mPeer->writeLine(line);
        const auto said = mPeer->waitForLine(expected);
        EXPECT_TRUE(said) << '"' << line << "\" did not lead to \"" << expected << '"';
        return said ? said->substr(std::min(said->size(), expected.size() + 1)) : "";
    }

    sp<Producer> borrowFromPeer() {
        tell("own", "owned");
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
    Producer::QueueBufferOutput output;
    EXPECT_EQ(producer->connect(nullptr, 9, false, &output), BAD_VALUE);
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
        EXPECT_EQ(tell("acquire", "acquired"), expected.str());
        tell("release", "released");
    }
    EXPECT_EQ(producer->cancelBuffer(99, Fence::NO_FENCE), BAD_VALUE);
    EXPECT_EQ(producer->setMaxDequeuedBufferCount(0), BAD_VALUE);
    uint64_t id = 0;
    EXPECT_EQ(producer->getUniqueId(&id), OK);
    EXPECT_EQ(static_cast<pid_t>(id >> 32), mPeer->pid());
    EXPECT_NE(producer->getConsumerName(), String8("TransactFailed"));
    int value = 0;
    EXPECT_EQ(producer->query(NATIVE_WINDOW_CONSUMER_USAGE_BITS, &value), OK);
    EXPECT_EQ(value, GRALLOC_USAGE_SW_READ_OFTEN);

    tell("abandon", "abandoned");
    EXPECT_EQ(dequeue(producer, &slot), NO_INIT);
    EXPECT_EQ(producer->disconnect(kApi), OK);
}

TEST_F(ARemoteProducer, CarriesAFenceThatSignalsLater) {
    const sp<Producer> producer = borrowFromPeer();
    ASSERT_EQ(connect(producer), OK);
    int slot = -1;
    sp<GraphicBuffer> buffer;
    ASSERT_EQ(dequeue(producer, &slot), Producer::BUFFER_NEEDS_REALLOCATION);
    ASSERT_EQ(producer->requestBuffer(slot, &buffer), OK);
    SignalFence fence;
    ASSERT_EQ(queue(producer, slot, fence.fence()), OK);
    mPeer->writeLine("acquire");
    EXPECT_FALSE(mPeer->waitForLine("acquired", std::chrono::milliseconds(200)));
    *pixelsOf(buffer, kUsage) = 4711;
    fence.signal();
    const auto said = mPeer->waitForLine("acquired");
    ASSERT_TRUE(said);
    EXPECT_NE(said->find(" 4711 "), std::string::npos) << *said;

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
            sp<GraphicBuffer> buffer;
            ASSERT_GE(dequeue(mProducer, &slot), 0);
            ASSERT_EQ(mProducer->requestBuffer(slot, &buffer), OK);
            ASSERT_EQ(queue(mProducer, slot), OK);
        }
        tell("acquire", "acquired");
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
    tell("release", "released");
    EXPECT_EQ(mDequeued.get(), OK);
}

TEST_F(ABlockedDequeue, EndsWhenTheConsumerOrItsProcessGoes) {
    mPeer->kill(SIGKILL);
    EXPECT_EQ(mDequeued.get(), DEAD_OBJECT);
    EXPECT_EQ(mProducer->disconnect(kApi), DEAD_OBJECT) << "and so does every later call";
    ASSERT_TRUE(mServiceProcess->waitForLine("died surface IMG_SUB dropped"));
    EXPECT_EQ(borrow(mService), nullptr) << "the queues of a dead process are gone";
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
    const Queue local;
    for (const bool waiting : {false, true}) {
        const sp<CountingProducer> surface = new CountingProducer(local.producer);
        ASSERT_TRUE(mService->setSurface(kType, surface).isOk());
        mPeer = start({"/proc/self/exe", "--peer"});
        mPeer->writeLine(waiting ? "take 3" : "take 2");  // of the two slots that there are
        ASSERT_TRUE(waitUntil([&] { return surface->begun == (waiting ? 3 : 2); }));
        if (!waiting) {
            EXPECT_TRUE(mPeer->waitForLine("took 0 1 1"));
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
    mPeer = start({"/proc/self/exe", "--peer"});
    EXPECT_EQ(tell("take 1", "took"), "0 1") << "another process may follow";
}

TEST_F(ARemoteProducer, KeepsItsIdentity) {
    Queue local;
    const wp<HGraphicBufferProducer> weak = local.surface;
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(mService->setSurface(kType, local.surface).isOk());
        EXPECT_EQ(tell("take 0", "took"), round == 0 ? "0" : std::to_string(BAD_VALUE));
        EXPECT_EQ(mService->getSurface(kType).withDefault(nullptr).get(), local.surface.get());
    }
    ASSERT_TRUE(mService->setSurface(kType, nullptr).isOk());
    EXPECT_EQ(mService->getSurface(kType).withDefault(nullptr), nullptr);
    local.surface = nullptr;
    EXPECT_NE(weak.promote(), nullptr) << "the peer still holds it";
    mPeer->kill(SIGKILL);
    EXPECT_TRUE(waitUntil([&] { return weak.promote() == nullptr; }));

    mPeer = start({"/proc/self/exe", "--peer"});
    tell("own", "owned");
    const sp<HGraphicBufferProducer> one = mService->getSurface(kType).withDefault(nullptr);
    const sp<HGraphicBufferProducer> other = mService->getSurface(kType).withDefault(nullptr);
    ASSERT_NE(one, nullptr);
    EXPECT_TRUE(one->isRemote());
    EXPECT_TRUE(hardware::interfacesEqual(one, other));
    tell("disown", "disowned");
    EXPECT_TRUE(one->ping().isOk()) << "a proxy keeps its object";
}

TEST_F(ARemoteProducer, RefusesMemoryThatMayBeTakenAway) {
    tell("own-hostile", "owned");
    const sp<Producer> producer = borrow(mService);
    ASSERT_EQ(connect(producer), OK);
    int slot = -1;
    sp<GraphicBuffer> buffer;
    ASSERT_EQ(dequeue(producer, &slot), Producer::BUFFER_NEEDS_REALLOCATION);
    EXPECT_EQ(producer->requestBuffer(slot, &buffer), BAD_VALUE);
    EXPECT_EQ(buffer->initCheck(), NO_INIT);
}

TEST_F(ARemoteProducer, LeavesNoDescriptorsBehind) {
    tell("own", "owned");
    SignalFence fence;
    fence.signal();
    size_t here = 0;
    std::string there;
    for (int round = 0; round <= 500; ++round) {
        const sp<Producer> producer = borrow(mService);
        ASSERT_EQ(connect(producer), OK);
        int slot = -1;
        sp<GraphicBuffer> buffer;
        ASSERT_EQ(dequeue(producer, &slot), Producer::BUFFER_NEEDS_REALLOCATION);
        ASSERT_EQ(producer->requestBuffer(slot, &buffer), OK);
        ASSERT_NE(pixelsOf(buffer, kUsage), nullptr);
        ASSERT_EQ(producer->cancelBuffer(slot, fence.fence()), OK);
        ASSERT_EQ(producer->disconnect(kApi), OK);
        buffer = nullptr;
        if (round > 0) continue;
        here = openDescriptors();
        there = tell("descriptors", "descriptors");
    }
    EXPECT_EQ(openDescriptors(), here);
    EXPECT_EQ(tell("descriptors", "descriptors"), there);
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
