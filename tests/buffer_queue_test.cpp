#include <gtest/gtest.h>
#include <gui/BufferItemConsumer.h>
#include <gui/BufferQueue.h>
#include <gui/IProducerListener.h>
#include <system/window.h>
#include <ui/AllocationFault.h>

#include <functional>
#include <future>
#include <thread>

#include "SignalFence.h"
#include "WaitUntil.h"

using namespace android;

namespace {

using Producer = IGraphicBufferProducer;
constexpr int kCamera = NATIVE_WINDOW_API_CAMERA;
constexpr int kNeedsReallocation = Producer::BUFFER_NEEDS_REALLOCATION;
constexpr uint32_t kWidth = 320;
constexpr uint32_t kHeight = 240;
constexpr auto kBriefly = std::chrono::milliseconds(30);

Producer::QueueBufferInput frame(int64_t timestamp = 0, const sp<Fence>& fence = Fence::NO_FENCE,
                                 const Rect& crop = Rect(kWidth, kHeight), int scalingMode = 1) {
    return {timestamp, false, HAL_DATASPACE_ARBITRARY, crop, scalingMode, 0, fence};
}

// A producer that is not connected and a consumer that may hold one frame.
class ABufferQueue : public testing::Test {
  protected:
    ABufferQueue() { make(); }

    void make() {
        sp<IGraphicBufferConsumer> end;
        BufferQueue::createBufferQueue(&producer, &end);
        consumer = new BufferItemConsumer(end, GRALLOC_USAGE_SW_READ_OFTEN, 1);
    }
    status_t connect() { return producer->connect(nullptr, kCamera, false, &output); }
    // Connects as the camera library does; seven slots, then.
    void connectWithSix() {
        ASSERT_EQ(NO_ERROR, connect());
        ASSERT_EQ(NO_ERROR, producer->setMaxDequeuedBufferCount(6));
    }
    status_t dequeue(uint32_t w = kWidth, uint32_t h = kHeight) {
        return producer->dequeueBuffer(&slot, &fence, w, h, HAL_PIXEL_FORMAT_RGBA_8888,
                                       GRALLOC_USAGE_SW_WRITE_OFTEN, nullptr, nullptr);
    }
    // Dequeues and requests, as a producer must before it may queue.
    int dequeueReady() {
        EXPECT_GE(dequeue(), NO_ERROR);
        EXPECT_EQ(NO_ERROR, producer->requestBuffer(slot, &buffer));
        return slot;
    }
    status_t queue(int which, const Producer::QueueBufferInput& input = frame()) {
        return producer->queueBuffer(which, input, &output);
    }
    int queueOne(int64_t timestamp = 0) {
        EXPECT_EQ(NO_ERROR, queue(dequeueReady(), frame(timestamp)));
        return slot;
    }
    status_t cancel(int which) { return producer->cancelBuffer(which, Fence::NO_FENCE); }
    BufferItem acquire() {
        BufferItem item;
        EXPECT_EQ(NO_ERROR, consumer->acquireBuffer(&item, 0));
        return item;
    }

    sp<Producer> producer;
    sp<BufferItemConsumer> consumer;
    Producer::QueueBufferOutput output;
    int slot = -1;  // of the latest dequeue, as are the next two
    sp<Fence> fence;
    sp<GraphicBuffer> buffer;
};

TEST_F(ABufferQueue, AnswersNoInitOnceItsConsumerIsGone) {
    connectWithSix();
    queueOne();
    const int lent = dequeueReady();
    consumer->abandon();
    EXPECT_EQ(NO_INIT, connect());
    EXPECT_EQ(NO_INIT, producer->setMaxDequeuedBufferCount(3));
    EXPECT_EQ(NO_INIT, dequeue());
    EXPECT_EQ(NO_INIT, producer->requestBuffer(lent, &buffer));
    EXPECT_EQ(NO_INIT, queue(lent));
    EXPECT_EQ(NO_INIT, cancel(lent));
    EXPECT_EQ(NO_ERROR, producer->disconnect(kCamera));
    make();
    connectWithSix();
    consumer.clear();
    EXPECT_EQ(NO_INIT, dequeue()) << "the consumer's last reference abandons the queue";
}

TEST_F(ABufferQueue, ReconnectTakesSlotsBackAndKeepsLimitsAndQueuedFrames) {
    connectWithSix();
    queueOne(11);
    const uint64_t oldId = buffer->getId();
    const int lent = dequeueReady();
    EXPECT_EQ(NO_ERROR, producer->disconnect(-1)) << "whichever is connected";
    EXPECT_EQ(NO_ERROR, producer->disconnect(-1)) << "none";
    EXPECT_EQ(NO_INIT, producer->disconnect(kCamera));
    ASSERT_EQ(NO_ERROR, connect());
    EXPECT_EQ(BAD_VALUE, queue(lent)) << "the slot is no longer lent";

    const BufferItem item = acquire();
    EXPECT_EQ(11, item.mTimestamp);
    EXPECT_TRUE(item.mIsStale);
    EXPECT_EQ(oldId, item.mGraphicBuffer->getId()) << "the frame's memory must still be there";
    EXPECT_EQ(IGraphicBufferConsumer::STALE_BUFFER_SLOT, consumer->releaseBuffer(item));
    for (int expected = 0; expected < 7; expected++) {
        EXPECT_EQ(kNeedsReallocation, dequeue());
        EXPECT_EQ(expected, slot);
    }
}

TEST_F(ABufferQueue, LendsReleasedBuffersAgainWithTheirFencesInOrderOfRelease) {
    connectWithSix();
    SignalFence released;
    for (int round = 0; round < 3; round++) {
        EXPECT_EQ(0, queueOne()) << "a consumer that keeps up needs one slot only";
        ASSERT_EQ(NO_ERROR, consumer->releaseBuffer(acquire(), released.fence()));
    }
    EXPECT_EQ(NO_ERROR, dequeue());
    EXPECT_EQ(released.fence(), fence);
    dequeueReady();
    dequeueReady();
    SignalFence cancelled;
    for (const int which : {1, 2, 0})
        EXPECT_EQ(NO_ERROR, producer->cancelBuffer(which, cancelled.fence()));
    for (const int expected : {1, 2, 0}) {
        EXPECT_EQ(NO_ERROR, dequeue());
        EXPECT_EQ(expected, slot);
        EXPECT_EQ(cancelled.fence(), fence);
    }
    EXPECT_EQ(kNeedsReallocation, dequeue()) << "slots without a buffer come last";
}

TEST_F(ABufferQueue, LendsABufferOnceItsFrameIsWrittenAndReadAlike) {
    connectWithSix();
    SignalFence written, read;
    ASSERT_EQ(NO_ERROR, queue(dequeueReady(), frame(0, written.fence())));
    BufferItem item;
    ASSERT_EQ(NO_ERROR, consumer->acquireBuffer(&item, 0, false));
    ASSERT_EQ(NO_ERROR, consumer->releaseBuffer(item, read.fence()));
    ASSERT_EQ(NO_ERROR, dequeue());
    read.signal();
    EXPECT_EQ(-ETIME, fence->wait(0));
    written.signal();
    EXPECT_EQ(NO_ERROR, fence->wait(Fence::TIMEOUT_NEVER));

    ASSERT_EQ(NO_ERROR, producer->requestBuffer(slot, &buffer));
    ASSERT_EQ(NO_ERROR, queue(slot, frame(0, written.fence())));
    ASSERT_EQ(NO_ERROR, consumer->releaseBuffer(acquire()));
    ASSERT_EQ(NO_ERROR, dequeue());
    EXPECT_TRUE(fence->isValid()) << "the frame's own, which a consumer that waits has seen signal";
    EXPECT_EQ(NO_ERROR, fence->wait(0));
}

TEST_F(ABufferQueue, FailedDequeueTakesNoSlot) {
    connectWithSix();
    EXPECT_EQ(BAD_VALUE, dequeue(0, kHeight));
    EXPECT_EQ(BAD_VALUE, dequeue(kWidth, 0));
    {
        AllocationFault fault(NO_MEMORY);
        EXPECT_EQ(NO_MEMORY, dequeue());
    }
    EXPECT_EQ(kNeedsReallocation, dequeue());
    EXPECT_EQ(0, slot) << "the failed allocation gave its slot back";
}

TEST_F(ABufferQueue, BlockedDequeueGoesOnWithAReleaseARaisedLimitAndTheConsumersEnd) {
    BufferItem held;
    const std::pair<status_t, std::function<void()>> rows[] = {
        {NO_ERROR, [&] { EXPECT_EQ(NO_ERROR, consumer->releaseBuffer(held)); }},
        {kNeedsReallocation, [&] { EXPECT_EQ(NO_ERROR, producer->setMaxDequeuedBufferCount(7)); }},
        {NO_INIT, [&] { consumer->abandon(); }},
    };
    for (const auto& [status, event] : rows) {
        make();
        connectWithSix();
        for (int i = 0; i < 7; i++)
            queueOne(i);
        held = acquire();
        std::future<status_t> waiting = std::async(std::launch::async, [this] { return dequeue(); });
        EXPECT_EQ(std::future_status::timeout, waiting.wait_for(kBriefly));
        EXPECT_EQ(NO_ERROR, consumer->setMaxAcquiredBufferCount(2));
        EXPECT_EQ(NO_ERROR, producer->setDequeueTimeout(-1));
        EXPECT_EQ(std::future_status::timeout, waiting.wait_for(kBriefly)) << "neither of these wakes it";
        event();
        EXPECT_EQ(status, waiting.get());
    }
}

TEST_F(ABufferQueue, RefusesSlotsThatAreNotLentAndFramesThatDoNotFit) {
    connectWithSix();
    ASSERT_GE(dequeue(), NO_ERROR);
    for (const int other : {-1, slot + 1, 63, 64, INT32_MAX, INT32_MIN}) {
        EXPECT_EQ(BAD_VALUE, producer->requestBuffer(other, &buffer)) << other;
        EXPECT_EQ(BAD_VALUE, queue(other)) << other;
        EXPECT_EQ(BAD_VALUE, cancel(other)) << other;
    }
    EXPECT_EQ(BAD_VALUE, queue(slot)) << "never requested";
    ASSERT_EQ(NO_ERROR, producer->requestBuffer(slot, &buffer));
    EXPECT_EQ(BAD_VALUE, queue(slot, frame(0, nullptr)));
    EXPECT_EQ(BAD_VALUE, queue(slot, frame(0, Fence::NO_FENCE, Rect(), 4)));
    EXPECT_EQ(BAD_VALUE, queue(slot, frame(0, Fence::NO_FENCE, Rect(kWidth + 1, kHeight))));
    EXPECT_EQ(BAD_VALUE, producer->cancelBuffer(slot, nullptr));
    EXPECT_EQ(NO_ERROR, queue(slot)) << "every refusal left it lent";
    EXPECT_EQ(BAD_VALUE, queue(slot)) << "queued once";
    EXPECT_EQ(BAD_VALUE, cancel(slot));
}

TEST_F(ABufferQueue, ConsumerHoldsOneMoreThanItsMaximumAndReleasesEachOnce) {
    connectWithSix();
    BufferItem item;
    EXPECT_EQ(IGraphicBufferConsumer::NO_BUFFER_AVAILABLE, consumer->acquireBuffer(&item, 0));
    for (int i = 0; i < 3; i++)
        queueOne(i);
    const BufferItem first = acquire();
    EXPECT_EQ(0, first.mTimestamp);
    EXPECT_EQ(1, acquire().mTimestamp);
    EXPECT_EQ(INVALID_OPERATION, consumer->acquireBuffer(&item, 0));
    EXPECT_EQ(BAD_VALUE, consumer->releaseBuffer(first, nullptr));
    EXPECT_EQ(NO_ERROR, consumer->releaseBuffer(first));
    EXPECT_EQ(BAD_VALUE, consumer->releaseBuffer(first)) << "released twice";
    EXPECT_EQ(kNeedsReallocation, dequeue(2 * kWidth));
    EXPECT_EQ(IGraphicBufferConsumer::STALE_BUFFER_SLOT, consumer->releaseBuffer(first));
    item.mSlot = 64;
    EXPECT_EQ(BAD_VALUE, consumer->releaseBuffer(item));
}

TEST_F(ABufferQueue, RefusedLimitLeavesLentSlotsAlone) {
    connectWithSix();
    for (int i = 0; i < 6; i++)
        dequeueReady();
    EXPECT_EQ(BAD_VALUE, producer->setMaxDequeuedBufferCount(0));
    EXPECT_EQ(BAD_VALUE, producer->setMaxDequeuedBufferCount(5)) << "six are lent";
    EXPECT_EQ(NO_ERROR, producer->setMaxDequeuedBufferCount(6));
    EXPECT_EQ(6, dequeueReady()) << "before its first frame a producer may take every slot";
    EXPECT_EQ(NO_ERROR, queue(0));
    EXPECT_EQ(INVALID_OPERATION, dequeue());
    for (int i = 1; i < 7; i++)
        EXPECT_EQ(NO_ERROR, queue(i));
    EXPECT_EQ(BAD_VALUE, producer->setMaxDequeuedBufferCount(5)) << "no slot is free to go";
}

TEST_F(ABufferQueue, PassesEveryFrameInOrderBetweenTwoThreads) {
    constexpr int kFrames = 300;
    connectWithSix();
    std::thread filling([&] {
        for (int64_t timestamp = 0; timestamp < kFrames; timestamp++)
            queueOne(timestamp);
    });
    int64_t expected = 0;
    EXPECT_TRUE(waitUntil([&] {
        BufferItem item;
        while (consumer->acquireBuffer(&item, 0) == NO_ERROR) {
            EXPECT_EQ(expected++, item.mTimestamp);
            EXPECT_EQ(NO_ERROR, consumer->releaseBuffer(item));
        }
        return expected == kFrames;
    }));
    filling.join();
}

}  // namespace
