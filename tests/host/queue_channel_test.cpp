// Both ends of a channel in one process, each against honest and hostile packets.

#include <gtest/gtest.h>
#include <gui/bufferqueue/1.0/H2BGraphicBufferProducer.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <system/window.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <filesystem>
#include <future>
#include <mutex>
#include <set>

#include "ConsumerQueue.h"
#include "LogCapture.h"
#include "ProducerServer.h"
#include "RawChannelEnd.h"
#include "RemoteProducer.h"
#include "SignalFence.h"
#include "WaitUntil.h"

using namespace android;             // NOLINT(google-build-using-namespace)
using namespace vel::queue_channel;  // NOLINT(google-build-using-namespace)
using android::base::unique_fd;
using android::hardware::Return;
using android::hardware::Void;
using android::hardware::graphics::bufferqueue::V1_0::utils::H2BGraphicBufferProducer;
using BProducer = android::IGraphicBufferProducer;

namespace {

constexpr int kApi = NATIVE_WINDOW_API_CAMERA;

size_t openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// What is wrong with a packet.
struct Fault {
    const char* name;
    int version = kVersion;
    int operation = -1;  // the packet's own
    int slot = 0;
    int extraBytes = 0;
    int descriptors = 0;
    int numberOffset = 0;
};
const Fault kFaults[] = {
    {"another version", kVersion + 1},
    {"operation 0", kVersion, 0},
    {"an operation too many", kVersion, static_cast<int>(Operation::GET_UNIQUE_ID) + 1},
    {"a slot too high", kVersion, -1, kSlotCount},
    {"a slot too low", kVersion, -1, kNoSlot - 1},
    {"short", kVersion, -1, 0, -1},
    {"empty", kVersion, -1, 0, INT_MIN},
    {"long", kVersion, -1, 0, 1},
    {"a descriptor with a query", kVersion, static_cast<int>(Operation::QUERY), 0, 0, 1},
    {"two descriptors", kVersion, -1, 0, 0, 2},
    {"four descriptors", kVersion, -1, 0, 0, 4},
};

template <typename Packet>
void sendSpoilt(RawChannelEnd& end, Packet packet, const Fault& fault) {
    packet.version = static_cast<uint16_t>(fault.version);
    if (fault.operation >= 0) packet.operation = static_cast<Operation>(fault.operation);
    packet.slot = fault.slot;
    packet.number += fault.numberOffset;
    end.send(packet, fault.extraBytes, std::vector<int>(fault.descriptors, STDERR_FILENO));
}

// Counts the dequeues that have begun, and answers a query by what was asked.
struct CountingProducer : TWGraphicBufferProducer<HGraphicBufferProducer> {
    using TWGraphicBufferProducer::TWGraphicBufferProducer;
    Return<void> dequeueBuffer(uint32_t width, uint32_t height, RemoteProducer::PixelFormat format,
                               uint32_t usage, bool timestamps, dequeueBuffer_cb reply) override {
        ++begun;
        return TWGraphicBufferProducer::dequeueBuffer(width, height, format, usage, timestamps, reply);
    }
    Return<void> query(int32_t what, query_cb reply) override {
        {
            std::lock_guard<std::mutex> lock(mLock);
            mThreads.insert(gettid());
        }
        reply(OK, what);
        return Void();
    }
    // That have answered queries.
    size_t threads() {
        std::lock_guard<std::mutex> lock(mLock);
        return mThreads.size();
    }
    std::atomic<int> begun{0};

  private:
    std::mutex mLock;
    std::set<pid_t> mThreads;  // guarded by mLock
};

class AChannel : public testing::Test {
  protected:
    AChannel() {
        client->name = "a client";
        producer = new H2BGraphicBufferProducer(new RemoteProducer(open()));
    }
    ~AChannel() override { consumer->abandon(); }

    unique_fd open() { return ProducerServer::open(local, client); }

    status_t connect() {
        BProducer::QueueBufferOutput output;
        return producer->connect(nullptr, kApi, false, &output);
    }
    status_t dequeue() { return dequeue(&slot, &dequeued); }
    status_t dequeue(int* to, sp<Fence>* fence) {
        return producer->dequeueBuffer(to, fence, 64, 1, PIXEL_FORMAT_RGBA_8888, GRALLOC_USAGE_SW_WRITE_OFTEN,
                                       nullptr, nullptr);
    }
    // On a thread of its own.
    std::future<status_t> dequeueLater() {
        return std::async(std::launch::async, [this] {
            int got = -1;
            sp<Fence> fence;
            return dequeue(&got, &fence);
        });
    }
    // Takes both slots that the queue has.
    void takeAll() {
        ASSERT_EQ(connect(), OK);
        ASSERT_GE(dequeue(), 0);
        ASSERT_GE(dequeue(), 0);
    }
    void expectAlive() {
        int value = 0;
        EXPECT_EQ(producer->query(4711, &value), OK);
        EXPECT_EQ(value, 4711);
    }

    const ConsumerQueue mQueue;
    const sp<BProducer> queue = mQueue.producer;
    const sp<BufferItemConsumer> consumer = mQueue.consumer;
    const sp<CountingProducer> local = new CountingProducer(queue);
    const std::shared_ptr<Client> client = std::make_shared<Client>();
    sp<BProducer> producer;
    int slot = -1;
    sp<Fence> dequeued;
};

TEST_F(AChannel, CarriesMemoryAndFencesBothWays) {
    ASSERT_EQ(connect(), OK);
    ASSERT_EQ(dequeue(), BProducer::BUFFER_NEEDS_REALLOCATION);
    sp<GraphicBuffer> buffer;
    ASSERT_EQ(producer->requestBuffer(slot, &buffer), OK);
    void* pixels = nullptr;
    ASSERT_EQ(buffer->lock(GRALLOC_USAGE_SW_WRITE_OFTEN, &pixels), OK);
    *static_cast<uint32_t*>(pixels) = 4711;
    SignalFence written, unused;
    BProducer::QueueBufferOutput output;
    ASSERT_EQ(
        producer->queueBuffer(
            slot, {-77, true, HAL_DATASPACE_STANDARD_BT601_625, Rect(1, 0, 20, 1), 3, 5, written.fence()},
            &output),
        OK);
    BufferItem item;
    ASSERT_EQ(consumer->acquireBuffer(&item, 0, false), OK);
    ASSERT_EQ(item.mGraphicBuffer->lock(GRALLOC_USAGE_SW_READ_OFTEN, &pixels), OK);
    EXPECT_EQ(*static_cast<uint32_t*>(pixels), 4711u) << "the same memory";
    EXPECT_EQ(item.mTimestamp, -77);
    EXPECT_TRUE(item.mIsAutoTimestamp);
    EXPECT_EQ(item.mDataSpace, HAL_DATASPACE_STANDARD_BT601_625);
    EXPECT_EQ(item.mCrop, Rect(1, 0, 20, 1));
    EXPECT_EQ(item.mScalingMode, 3u);
    EXPECT_EQ(item.mTransform, 5u);
    EXPECT_EQ(item.mFence->wait(0), -ETIME);
    written.signal();
    EXPECT_EQ(item.mFence->wait(0), OK);

    ASSERT_GE(dequeue(), 0);
    ASSERT_EQ(producer->cancelBuffer(slot, unused.fence()), OK);
    ASSERT_GE(dequeue(), 0);
    EXPECT_EQ(dequeued->wait(0), -ETIME);
    unused.signal();
    EXPECT_EQ(dequeued->wait(0), OK);
}

TEST_F(AChannel, GivesAFenceAndABufferAlsoWhenItFails) {
    ASSERT_EQ(connect(), OK);
    for (const int status : {int{BProducer::BUFFER_NEEDS_REALLOCATION}, int{NO_INIT}}) {
        slot = 8;
        EXPECT_EQ(dequeue(), status);
        EXPECT_EQ(slot, 0);
        ASSERT_NE(dequeued, nullptr);
        EXPECT_FALSE(dequeued->isValid());
        sp<GraphicBuffer> buffer;
        EXPECT_LT(producer->requestBuffer(5, &buffer), OK);
        ASSERT_NE(buffer, nullptr);
        EXPECT_EQ(buffer->initCheck(), OK) << "only the status tells";
        EXPECT_EQ(buffer->getWidth(), 0u);
        consumer->abandon();
    }
}

TEST_F(AChannel, EndsAloneWithABadRequest) {
    Request request(Operation::CANCEL_BUFFER);
    Reply reply;
    RawChannelEnd honest(open());
    ASSERT_TRUE(honest.send(request, 0, {STDERR_FILENO}));
    EXPECT_EQ(honest.receive(reply), static_cast<ssize_t>(sizeof(reply)));
    expectAlive();
    const size_t descriptors = openDescriptors();
    for (const Fault& fault : kFaults) {
        SCOPED_TRACE(fault.name);
        LogCapture log;
        {
            RawChannelEnd raw(open());
            sendSpoilt(raw, request, fault);
            EXPECT_EQ(raw.receive(reply), 0);
            EXPECT_FALSE(raw.send(request));
        }
        EXPECT_EQ(log.texts(kLogTag).size(), 1u);
        EXPECT_TRUE(waitUntil([&] { return openDescriptors() <= descriptors; }));
        expectAlive();
    }
}

TEST_F(AChannel, StartsNoThreadForACallerThatIsAlone) {
    int value = 0;
    for (int round = 0; round < 20000; ++round)
        producer->query(round, &value);
    EXPECT_EQ(value, 19999);
    EXPECT_LE(local->threads(), 2u);
}

TEST_F(AChannel, EndsWhenItsRepliesAreLeftUnread) {
    LogCapture log;
    RawChannelEnd raw(open());
    const Request request(Operation::GET_UNIQUE_ID);
    size_t sent = 0;
    while (sent < 100000 && raw.send(request))
        ++sent;
    EXPECT_LT(sent, 100000u);
    EXPECT_EQ(log.count("unread"), 1u);
    expectAlive();
}

TEST_F(AChannel, LetsCallsPassBesideItsFillOfWaitingDequeues) {
    takeAll();
    std::vector<std::future<status_t>> waiting;
    for (int i = 1; i < ProducerServer::kMaxThreads; ++i) {
        waiting.push_back(dequeueLater());
        ASSERT_TRUE(waitUntil([&] { return local->begun == 2 + i; }));
    }
    EXPECT_EQ(dequeueLater().get(), WOULD_BLOCK);
    expectAlive();
    consumer->abandon();
    for (auto& each : waiting)
        EXPECT_EQ(each.get(), NO_INIT);
}

TEST_F(AChannel, GivesBackTheSlotOfADequeueWhoseClientIsGone) {
    takeAll();
    RawChannelEnd raw(open());
    ASSERT_TRUE(raw.send(Request(Operation::DEQUEUE_BUFFER)));
    ASSERT_TRUE(waitUntil([&] { return local->begun == 3; }));
    raw.close();
    EXPECT_EQ(producer->cancelBuffer(slot, Fence::NO_FENCE), OK);
    EXPECT_EQ(queue->setDequeueTimeout(s2ns(30)), OK);
    EXPECT_GE(dequeue(), 0);
}

TEST_F(AChannel, AnswersEachOfManyCallersWhatItAsked) {
    takeAll();
    auto waiting = dequeueLater();
    std::vector<std::future<int>> callers;
    for (int caller = 0; caller < 8; ++caller) {
        callers.push_back(std::async(std::launch::async, [&, caller] {
            int wrong = 0;
            for (int round = 0; round < 300; ++round) {
                int value = -1;
                const int asked = caller * 1000 + round;
                wrong += producer->query(asked, &value) != OK || value != asked;
            }
            return wrong;
        }));
    }
    for (auto& caller : callers)
        EXPECT_EQ(caller.get(), 0);
    EXPECT_EQ(producer->cancelBuffer(slot, Fence::NO_FENCE), OK);
    EXPECT_EQ(waiting.get(), OK);
}

// A proxy whose queue is played by the test.
class AHostileQueue : public testing::Test {
  protected:
    void SetUp() override {
        unique_fd other;
        raw = std::make_unique<RawChannelEnd>(RawChannelEnd::openPair(&other));
        producer = new H2BGraphicBufferProducer(new RemoteProducer(std::move(other)));
    }

    // A reply to the next request, as it should be.
    Reply replyToNext() {
        Request request;
        EXPECT_GT(raw->receive(request), 0);
        Reply reply;
        reply.operation = request.operation;
        reply.number = request.number;
        return reply;
    }

    std::unique_ptr<RawChannelEnd> raw;
    sp<BProducer> producer;
};

TEST_F(AHostileQueue, EndsEveryCallWithABadReply) {
    std::vector<Fault> faults(std::begin(kFaults), std::end(kFaults));
    faults.push_back({"another operation", kVersion, static_cast<int>(Operation::CONNECT)});
    faults.push_back({"a number that nobody has", kVersion, -1, 0, 0, 0, 7});
    for (const Fault& fault : faults) {
        SCOPED_TRACE(fault.name);
        SetUp();
        LogCapture log;
        const auto ask = [this] {
            sp<GraphicBuffer> buffer;
            return producer->requestBuffer(0, &buffer);
        };
        auto first = std::async(std::launch::async, ask);
        Reply reply = replyToNext();
        auto second = std::async(std::launch::async, ask);
        const Reply secondReply = replyToNext();
        EXPECT_TRUE(raw->send(secondReply, 0, {STDERR_FILENO})) << "an honest one";
        EXPECT_EQ(second.get(), BAD_VALUE) << "the memory of no buffer";
        sendSpoilt(*raw, reply, fault);
        EXPECT_EQ(first.get(), DEAD_OBJECT);
        EXPECT_EQ(ask(), DEAD_OBJECT);
        EXPECT_EQ(log.texts(kLogTag).size(), 1u);
    }
}

TEST_F(AHostileQueue, CannotPassMemoryThatMayShrinkOrANameWithoutAnEnd) {
    auto name = std::async(std::launch::async, [this] { return producer->getConsumerName(); });
    Reply named = replyToNext();
    std::memset(named.name, 'x', sizeof(named.name));
    raw->send(named);
    EXPECT_EQ(name.get().length(), sizeof(named.name));

    auto requested = std::async(std::launch::async, [this] {
        sp<GraphicBuffer> buffer;
        return producer->requestBuffer(0, &buffer);
    });
    Reply reply = replyToNext();
    reply.attributes = {64, 1, 64, RemoteProducer::PixelFormat::RGBA_8888, GRALLOC_USAGE_SW_WRITE_OFTEN,
                        0,  1, 1};
    const unique_fd memory(memfd_create("unsealed", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    ASSERT_EQ(ftruncate(memory, 64 * 4), 0);
    raw->send(reply, 0, {memory});
    EXPECT_EQ(requested.get(), BAD_VALUE);
}

}  // namespace
