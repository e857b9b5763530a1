#include <gtest/gtest.h>
#include <gui/BufferItemConsumer.h>
#include <gui/BufferQueue.h>
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
constexpr PixelFormat kFormat = HAL_PIXEL_FORMAT_RGBA_8888;
constexpr uint32_t kWidth = 320;
constexpr uint32_t kHeight = 240;
constexpr auto kBriefly = std::chrono::milliseconds(30);

Producer::QueueBufferInput frame(int64_t timestamp = 0, const sp<Fence>& fence = Fence::NO_FENCE,
                                 const Rect& crop = Rect(kWidth, kHeight), int scalingMode = 1) {
    return {timestamp, false, HAL_DATASPACE_STANDARD_BT601_625, crop, scalingMode, 4, fence};
}

// A producer that is not connected and a consumer that may hold one frame.
class ABufferQueue : public testing::Test {
  protected:
    ABufferQueue() { make(1, false); }

    void make(int maxAcquired, bool consumerByApp) {
        sp<IGraphicBufferConsumer> end;
        BufferQueue::createBufferQueue(&producer, &end);
        consumer = new BufferItemConsumer(end, GRALLOC_USAGE_SW_READ_OFTEN, maxAcquired, consumerByApp);
    }
    status_t connect(bool byApp = false) { return producer->connect(nullptr, kCamera, byApp, &output); }
    // Connects as the camera library does; seven slots, then.
    void connectWithSix() {
        ASSERT_EQ(NO_ERROR, connect());
        ASSERT_EQ(NO_ERROR, producer->setMaxDequeuedBufferCount(6));
    }
    status_t dequeue(uint32_t w = kWidth, uint32_t h = kHeight, PixelFormat format = kFormat,
                     uint64_t usage = GRALLOC_USAGE_SW_WRITE_RARELY) {
        return producer->dequeueBuffer(&slot, &fence, w, h, format, usage, &age, nullptr);
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
    // A dequeue that waits, on another thread.
    std::future<status_t> blockedDequeue() {
        std::future<status_t> waiting = std::async(std::launch::async, [this] { return dequeue(); });
        EXPECT_EQ(std::future_status::timeout, waiting.wait_for(kBriefly));
        return waiting;
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
    int slot = -1;  // of the latest dequeue, as are the next three
    sp<Fence> fence;
    uint64_t age = 99;
    sp<GraphicBuffer> buffer;
};

TEST_F(ABufferQueue, AnswersNoInitBeforeTheConnectionAndAfterTheConsumersEnd) {
    for (const bool abandoned : {false, true}) {
        SCOPED_TRACE(abandoned);
        if (abandoned) {
            connectWithSix();
            queueOne();
            dequeueReady();
            consumer->abandon();
            consumer->abandon();
            EXPECT_EQ(NO_INIT, connect());
            EXPECT_EQ(NO_INIT, producer->setMaxDequeuedBufferCount(3));
            BufferItem item;
            EXPECT_EQ(NO_INIT, consumer->acquireBuffer(&item, 0));
        }
        EXPECT_EQ(NO_INIT, dequeue());
        EXPECT_EQ(NO_INIT, producer->requestBuffer(0, &buffer));
        EXPECT_EQ(NO_INIT, queue(0));
        EXPECT_EQ(NO_INIT, cancel(0));
        EXPECT_EQ(abandoned ? NO_ERROR : NO_INIT, producer->disconnect(kCamera));
    }
    make(1, false);
    connectWithSix();
    consumer.clear();
    EXPECT_EQ(NO_INIT, dequeue()) << "the consumer's last reference abandons the queue";
}

TEST_F(ABufferQueue, ConnectsOneKnownApiAtATime) {
    EXPECT_EQ(BAD_VALUE, producer->connect(nullptr, kCamera, false, nullptr));
    EXPECT_EQ(BAD_VALUE, producer->connect(nullptr, 0, false, &output));
    EXPECT_EQ(BAD_VALUE, producer->connect(nullptr, 5, false, &output));
    EXPECT_EQ(NO_ERROR, connect());
    EXPECT_EQ(BAD_VALUE, connect()) << "the same api may not connect twice either";
    EXPECT_EQ(BAD_VALUE, producer->disconnect(NATIVE_WINDOW_API_CPU));
    EXPECT_EQ(BAD_VALUE, producer->disconnect(77));
    EXPECT_EQ(NO_ERROR, producer->disconnect(kCamera));
    EXPECT_EQ(NO_INIT, producer->disconnect(kCamera));
    EXPECT_EQ(NO_ERROR, producer->disconnect(0, Producer::DisconnectMode::AllLocal));
}

TEST_F(ABufferQueue, ReconnectTakesSlotsBackAndKeepsLimitsAndQueuedFrames) {
    connectWithSix();
    queueOne(11);
    const uint64_t oldId = buffer->getId();
    const int lent = dequeueReady();
    ASSERT_EQ(NO_ERROR, producer->disconnect(kCamera));
    ASSERT_EQ(NO_ERROR, connect());
    EXPECT_EQ(1u, output.numPendingBuffers);
    EXPECT_EQ(2u, output.nextFrameNumber);
    EXPECT_EQ(BAD_VALUE, queue(lent)) << "the slot is no longer lent";

    const BufferItem item = acquire();
    EXPECT_EQ(11, item.mTimestamp);
    EXPECT_TRUE(item.mIsStale);
    EXPECT_EQ(oldId, item.mGraphicBuffer->getId()) << "the frame's memory must still be there";
    EXPECT_EQ(IGraphicBufferConsumer::STALE_BUFFER_SLOT, consumer->releaseBuffer(item));
    for (int expected = 0; expected < 7; expected++) {
        EXPECT_EQ(kNeedsReallocation, dequeue());
        EXPECT_EQ(expected, slot);
        EXPECT_EQ(Fence::NO_FENCE, fence);
        EXPECT_EQ(0u, age);
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
    EXPECT_EQ(1u, age);
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

TEST_F(ABufferQueue, AllocatesForTheAskedOrDefaultShapeAndTheUsageOfBothSides) {
    ASSERT_EQ(NO_ERROR, consumer->setDefaultBufferSize(64, 1));
    ASSERT_EQ(NO_ERROR, consumer->setDefaultBufferFormat(HAL_PIXEL_FORMAT_RAW_OPAQUE));
    connectWithSix();
    EXPECT_EQ(BAD_VALUE, dequeue(0, kHeight));
    EXPECT_EQ(BAD_VALUE, dequeue(kWidth, 0));
    {
        AllocationFault fault(NO_MEMORY);
        EXPECT_EQ(NO_MEMORY, dequeue());
    }
    EXPECT_EQ(-1, slot) << "an error leaves the slot untouched";
    ASSERT_EQ(kNeedsReallocation, dequeue(0, 0, 0, GRALLOC_USAGE_SW_WRITE_OFTEN));
    EXPECT_EQ(0, slot) << "the failed allocation gave its slot back";
    ASSERT_EQ(NO_ERROR, producer->requestBuffer(slot, &buffer));
    EXPECT_EQ(64u, buffer->getWidth());
    EXPECT_EQ(1u, buffer->getHeight());
    EXPECT_EQ(HAL_PIXEL_FORMAT_RAW_OPAQUE, buffer->getPixelFormat());
    EXPECT_EQ(GRALLOC_USAGE_SW_WRITE_OFTEN | GRALLOC_USAGE_SW_READ_OFTEN, buffer->getUsage());

    const std::pair<status_t, std::function<status_t()>> rows[] = {
        {kNeedsReallocation, [&] { return dequeue(kWidth + 1); }},
        {kNeedsReallocation, [&] { return dequeue(kWidth + 1, kHeight, HAL_PIXEL_FORMAT_RGBX_8888); }},
        {kNeedsReallocation, [&] { return dequeue(kWidth + 1, kHeight, HAL_PIXEL_FORMAT_RGBX_8888, 0x100); }},
        {NO_ERROR, [&] { return dequeue(kWidth + 1, kHeight, HAL_PIXEL_FORMAT_RGBX_8888, 0); }},
    };
    for (const auto& [status, ask] : rows) {
        EXPECT_EQ(NO_ERROR, cancel(slot));
        EXPECT_EQ(status, ask());
    }
}

TEST_F(ABufferQueue, BlockedDequeueGoesOnWithAReleaseARaisedLimitAndTheConsumersEnd) {
    BufferItem held;
    const std::pair<status_t, std::function<void()>> rows[] = {
        {NO_ERROR, [&] { EXPECT_EQ(NO_ERROR, consumer->releaseBuffer(held)); }},
        {kNeedsReallocation, [&] { EXPECT_EQ(NO_ERROR, producer->setMaxDequeuedBufferCount(7)); }},
        {NO_INIT, [&] { consumer->abandon(); }},
    };
    for (const auto& [status, event] : rows) {
        make(1, false);
        connectWithSix();
        for (int i = 0; i < 7; i++)
            queueOne(i);
        held = acquire();
        std::future<status_t> waiting = blockedDequeue();
        event();
        EXPECT_EQ(status, waiting.get());
    }
}

TEST_F(ABufferQueue, BlockedDequeueWaitsForFramesOfEarlierConnections) {
    for (int i = 0; i < 3; i++) {
        ASSERT_EQ(NO_ERROR, connect());
        queueOne(i);
        ASSERT_EQ(NO_ERROR, producer->disconnect(kCamera));
    }
    ASSERT_EQ(NO_ERROR, connect());
    std::future<status_t> waiting = blockedDequeue();
    acquire();
    EXPECT_EQ(kNeedsReallocation, waiting.get()) << "two slots are allowed, and two frames wait";
}

TEST_F(ABufferQueue, BlockedDequeueWaitsForAConsumerThatHoldsOneExtraFrameEvenByApp) {
    make(1, true);
    ASSERT_EQ(NO_ERROR, connect(true));
    queueOne();
    const BufferItem held = acquire();
    queueOne();
    acquire();
    queueOne();
    std::future<status_t> waiting = blockedDequeue();
    ASSERT_EQ(NO_ERROR, consumer->releaseBuffer(held));
    EXPECT_EQ(NO_ERROR, waiting.get());
}

TEST_F(ABufferQueue, NeverBlocksAndKeepsTheNewestFrameWhenBothSidesAreByApp) {
    make(1, true);
    ASSERT_EQ(NO_ERROR, connect(true));
    const int replaced = queueOne(1);
    queueOne(2);
    EXPECT_TRUE(output.bufferReplaced);
    EXPECT_EQ(2, acquire().mTimestamp);
    EXPECT_EQ(NO_ERROR, dequeue());
    EXPECT_EQ(replaced, slot);
    EXPECT_EQ(INVALID_OPERATION, dequeue()) << "one may be lent after the first frame";
    EXPECT_EQ(NO_ERROR, producer->disconnect(kCamera));
    ASSERT_EQ(NO_ERROR, connect(true));
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(kNeedsReallocation, dequeue()) << "one slot more than in order";
    EXPECT_EQ(WOULD_BLOCK, dequeue());
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

TEST_F(ABufferQueue, FrameArrivesAsItWasQueuedOnceItsFenceSignals) {
    connectWithSix();
    SignalFence written;
    ASSERT_EQ(NO_ERROR, queue(dequeueReady(), frame(-5, written.fence(), Rect(1, 2, 30, 40), 2)));
    EXPECT_EQ(1u, output.numPendingBuffers);
    EXPECT_EQ(2u, output.nextFrameNumber);
    std::future<BufferItem> waiting = std::async(std::launch::async, [&] { return acquire(); });
    EXPECT_EQ(std::future_status::timeout, waiting.wait_for(kBriefly));
    written.signal();
    const BufferItem item = waiting.get();
    EXPECT_EQ(-5, item.mTimestamp);
    EXPECT_EQ(HAL_DATASPACE_STANDARD_BT601_625, item.mDataSpace);
    EXPECT_EQ(Rect(1, 2, 30, 40), item.mCrop);
    EXPECT_EQ(2u, item.mScalingMode);
    EXPECT_EQ(4u, item.mTransform);
    EXPECT_EQ(written.fence(), item.mFence);
    EXPECT_EQ(slot, item.mSlot);
    EXPECT_EQ(1u, item.mFrameNumber);
    EXPECT_EQ(buffer, item.mGraphicBuffer);
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

TEST_F(ABufferQueue, LimitsStayWithinTheSlotsThereAre) {
    for (const int count : {0, -1, INT32_MIN, 64, INT32_MAX})
        EXPECT_EQ(BAD_VALUE, producer->setMaxDequeuedBufferCount(count)) << count;
    EXPECT_EQ(NO_ERROR, producer->setMaxDequeuedBufferCount(63)) << "needs no connection; 63 + 1 slots";
    EXPECT_EQ(BAD_VALUE, consumer->setMaxAcquiredBufferCount(2)) << "no slot is left";
    EXPECT_EQ(NO_ERROR, producer->setMaxDequeuedBufferCount(2));
    EXPECT_EQ(BAD_VALUE, consumer->setMaxAcquiredBufferCount(0));
    EXPECT_EQ(BAD_VALUE, consumer->setMaxAcquiredBufferCount(63));
    EXPECT_EQ(NO_ERROR, consumer->setMaxAcquiredBufferCount(62));
    EXPECT_EQ(BAD_VALUE, producer->setMaxDequeuedBufferCount(3)) << "64 slots in all";
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

TEST_F(ABufferQueue, LoweredLimitDropsFreeSlotsFirstThenTheNewestFreeBuffer) {
    connectWithSix();
    for (int i = 0; i < 3; i++)
        dequeueReady();
    for (const int which : {1, 0, 2})
        cancel(which);
    ASSERT_EQ(NO_ERROR, producer->setMaxDequeuedBufferCount(1));
    for (const int expected : {1, 0}) {
        EXPECT_EQ(NO_ERROR, dequeue());
        EXPECT_EQ(expected, slot);
    }
}

TEST_F(ABufferQueue, EndsTheProcessOnARefusedConsumerAndOnWhatIsAbsent) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(make(63, false), "");
    EXPECT_DEATH(producer->setSharedBufferMode(true), "setSharedBufferMode is absent");
}

TEST_F(ABufferQueue, PassesEveryFrameInOrderBetweenTwoThreads) {
    constexpr int kFrames = 300;
    make(2, true);
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
