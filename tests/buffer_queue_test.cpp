#include <gtest/gtest.h>
#include <gui/BufferItemConsumer.h>
#include <gui/BufferQueue.h>
#include <gui/Surface.h>
#include <ui/AllocationFault.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

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
    return {timestamp, false, HAL_DATASPACE_STANDARD_BT601_625, crop, scalingMode, 0, fence};
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

    // Connects as the camera library does.
    void connectWithSix(bool byApp = false) {
        ASSERT_EQ(NO_ERROR, connect(byApp));
        ASSERT_EQ(NO_ERROR, producer->setMaxDequeuedBufferCount(6));
    }

    status_t dequeue(int* slot, uint32_t w = kWidth, uint32_t h = kHeight,
                     PixelFormat format = HAL_PIXEL_FORMAT_RGBA_8888,
                     uint64_t usage = GRALLOC_USAGE_SW_WRITE_RARELY) {
        return producer->dequeueBuffer(slot, &fence, w, h, format, usage, &age, nullptr);
    }

    // Dequeues and requests, as a producer must before it may queue.
    int dequeueReady() {
        int slot = -1;
        EXPECT_GE(dequeue(&slot), NO_ERROR);
        EXPECT_EQ(NO_ERROR, producer->requestBuffer(slot, &buffer));
        return slot;
    }

    int queueOne(int64_t timestamp = 0) {
        const int slot = dequeueReady();
        EXPECT_EQ(NO_ERROR, producer->queueBuffer(slot, frame(timestamp), &output));
        return slot;
    }

    BufferItem acquire() {
        BufferItem item;
        EXPECT_EQ(NO_ERROR, consumer->acquireBuffer(&item, 0));
        return item;
    }

    sp<Producer> producer;
    sp<BufferItemConsumer> consumer;
    Producer::QueueBufferOutput output;
    sp<Fence> fence;
    sp<GraphicBuffer> buffer;
    uint64_t age = 0;
};

// Connecting and disconnecting.

TEST_F(ABufferQueue, EverythingBeforeConnect_ReturnsNoInit) {
    int slot = -1;
    EXPECT_EQ(NO_INIT, dequeue(&slot));
    EXPECT_EQ(NO_INIT, producer->requestBuffer(0, &buffer));
    EXPECT_EQ(NO_INIT, producer->queueBuffer(0, frame(), &output));
    EXPECT_EQ(NO_INIT, producer->cancelBuffer(0, Fence::NO_FENCE));
    EXPECT_EQ(NO_INIT, producer->disconnect(kCamera));
}

TEST_F(ABufferQueue, ConnectWithoutConsumer_ReturnsNoInit) {
    sp<Producer> lonely;
    sp<IGraphicBufferConsumer> end;
    BufferQueue::createBufferQueue(&lonely, &end);
    EXPECT_EQ(NO_INIT, lonely->connect(nullptr, kCamera, false, &output));
}

TEST_F(ABufferQueue, Connect_RefusesNullOutputSecondConnectionAndUnknownApi) {
    EXPECT_EQ(BAD_VALUE, producer->connect(nullptr, kCamera, false, nullptr));
    EXPECT_EQ(BAD_VALUE, producer->connect(nullptr, 0, false, &output));
    EXPECT_EQ(BAD_VALUE, producer->connect(nullptr, 5, false, &output));
    EXPECT_EQ(NO_ERROR, connect());
    EXPECT_EQ(BAD_VALUE, connect()) << "the same api may not connect twice either";
    EXPECT_EQ(BAD_VALUE, producer->connect(nullptr, NATIVE_WINDOW_API_CPU, false, &output));
}

TEST_F(ABufferQueue, ConnectOutput_TellsSizePendingFramesAndNextNumber) {
    ASSERT_EQ(NO_ERROR, consumer->setDefaultBufferSize(123, 45));
    ASSERT_EQ(NO_ERROR, connect());
    EXPECT_EQ(123u, output.width);
    EXPECT_EQ(45u, output.height);
    EXPECT_EQ(0u, output.numPendingBuffers);
    EXPECT_EQ(1u, output.nextFrameNumber);
    queueOne();
    EXPECT_EQ(2u, output.nextFrameNumber);
    ASSERT_EQ(NO_ERROR, producer->disconnect(kCamera));
    ASSERT_EQ(NO_ERROR, connect());
    EXPECT_EQ(1u, output.numPendingBuffers);
    EXPECT_EQ(2u, output.nextFrameNumber);
}

TEST_F(ABufferQueue, Disconnect_OfAnotherOrUnknownApi_ReturnsBadValue) {
    ASSERT_EQ(NO_ERROR, connect());
    EXPECT_EQ(BAD_VALUE, producer->disconnect(NATIVE_WINDOW_API_CPU));
    EXPECT_EQ(BAD_VALUE, producer->disconnect(77));
    EXPECT_EQ(NO_ERROR, producer->disconnect(kCamera));
    EXPECT_EQ(NO_INIT, producer->disconnect(kCamera));
    EXPECT_EQ(NO_ERROR, producer->disconnect(0, Producer::DisconnectMode::AllLocal));
}

TEST_F(ABufferQueue, Disconnect_TakesLentSlotsBackAndKeepsQueuedFrames) {
    connectWithSix();
    queueOne(11);
    const int lent = dequeueReady();
    ASSERT_EQ(NO_ERROR, producer->disconnect(kCamera));
    ASSERT_EQ(NO_ERROR, connect());
    EXPECT_EQ(BAD_VALUE, producer->queueBuffer(lent, frame(), &output)) << "the slot is no longer lent";

    const BufferItem item = acquire();
    EXPECT_EQ(11, item.mTimestamp);
    EXPECT_TRUE(item.mIsStale);
    EXPECT_NE(nullptr, item.mGraphicBuffer) << "the frame's memory must still be there";
    EXPECT_EQ(IGraphicBufferConsumer::STALE_BUFFER_SLOT, consumer->releaseBuffer(item));
}

TEST_F(ABufferQueue, Reconnect_GivesEverySlotANewBuffer) {
    connectWithSix();
    const int slot = queueOne();
    consumer->releaseBuffer(acquire());
    const uint64_t oldId = buffer->getId();
    ASSERT_EQ(NO_ERROR, producer->disconnect(kCamera));
    ASSERT_EQ(NO_ERROR, connect());
    int again = -1;
    EXPECT_EQ(kNeedsReallocation, dequeue(&again));
    EXPECT_EQ(slot, again);
    ASSERT_EQ(NO_ERROR, producer->requestBuffer(again, &buffer));
    EXPECT_NE(oldId, buffer->getId());
}

TEST_F(ABufferQueue, MaxDequeued_SurvivesDisconnect_ItsCheckStartsAnew) {
    connectWithSix();
    queueOne();
    ASSERT_EQ(NO_ERROR, producer->disconnect(kCamera));
    ASSERT_EQ(NO_ERROR, connect());
    for (int slot = 0; slot < 7; slot++)
        EXPECT_EQ(slot, dequeueReady());
}

// Dequeueing.

TEST_F(ABufferQueue, FreshConnection_NumbersSlotsFromZero) {
    connectWithSix();
    for (int expected = 0; expected < 7; expected++) {
        int slot = -1;
        EXPECT_EQ(kNeedsReallocation, dequeue(&slot));
        EXPECT_EQ(expected, slot);
        EXPECT_EQ(Fence::NO_FENCE, fence);
        EXPECT_EQ(0u, age);
    }
}

TEST_F(ABufferQueue, QueueThatKeepsUp_UsesTheLowestSlotOnly) {
    connectWithSix();
    for (int i = 0; i < 5; i++) {
        EXPECT_EQ(0, queueOne());
        consumer->releaseBuffer(acquire());
    }
}

TEST_F(ABufferQueue, DequeueOfReleasedBuffer_NeedsNoReallocationAndTellsItsAge) {
    connectWithSix();
    const int slot = queueOne();
    consumer->releaseBuffer(acquire());
    int again = -1;
    EXPECT_EQ(NO_ERROR, dequeue(&again));
    EXPECT_EQ(slot, again);
    EXPECT_EQ(1u, age);
}

TEST_F(ABufferQueue, DequeueWithOneZeroSize_ReturnsBadValue) {
    connectWithSix();
    int slot = -1;
    EXPECT_EQ(BAD_VALUE, dequeue(&slot, 0, kHeight));
    EXPECT_EQ(BAD_VALUE, dequeue(&slot, kWidth, 0));
    EXPECT_EQ(-1, slot) << "an error leaves the slot untouched";
}

TEST_F(ABufferQueue, DequeueWithZeros_TakesTheDefaultSizeAndFormat) {
    ASSERT_EQ(NO_ERROR, consumer->setDefaultBufferSize(64, 1));
    ASSERT_EQ(NO_ERROR, consumer->setDefaultBufferFormat(HAL_PIXEL_FORMAT_RAW_OPAQUE));
    connectWithSix();
    int slot = -1;
    ASSERT_EQ(kNeedsReallocation, dequeue(&slot, 0, 0, 0));
    ASSERT_EQ(NO_ERROR, producer->requestBuffer(slot, &buffer));
    EXPECT_EQ(64u, buffer->getWidth());
    EXPECT_EQ(1u, buffer->getHeight());
    EXPECT_EQ(HAL_PIXEL_FORMAT_RAW_OPAQUE, buffer->getPixelFormat());
}

TEST_F(ABufferQueue, NewBuffer_HasTheUsageOfBothSides) {
    connectWithSix();
    int slot = -1;
    dequeue(&slot, kWidth, kHeight, HAL_PIXEL_FORMAT_RGBA_8888, GRALLOC_USAGE_SW_WRITE_OFTEN);
    ASSERT_EQ(NO_ERROR, producer->requestBuffer(slot, &buffer));
    EXPECT_EQ(GRALLOC_USAGE_SW_WRITE_OFTEN | GRALLOC_USAGE_SW_READ_OFTEN, buffer->getUsage());
}

TEST_F(ABufferQueue, DequeueOfAnotherShapeOrUsage_Reallocates) {
    connectWithSix();
    int slot = queueOne();
    consumer->releaseBuffer(acquire());
    EXPECT_EQ(kNeedsReallocation, dequeue(&slot, kWidth + 1));
    producer->cancelBuffer(slot, Fence::NO_FENCE);
    EXPECT_EQ(kNeedsReallocation, dequeue(&slot, kWidth + 1, kHeight, HAL_PIXEL_FORMAT_RGBX_8888));
    producer->cancelBuffer(slot, Fence::NO_FENCE);
    EXPECT_EQ(kNeedsReallocation, dequeue(&slot, kWidth + 1, kHeight, HAL_PIXEL_FORMAT_RGBX_8888, 0x100));
    producer->cancelBuffer(slot, Fence::NO_FENCE);
    EXPECT_EQ(NO_ERROR, dequeue(&slot, kWidth + 1, kHeight, HAL_PIXEL_FORMAT_RGBX_8888, 0))
        << "more usage than asked for is no reason";
}

TEST_F(ABufferQueue, FreeBuffers_AreReusedInOrderOfRelease) {
    connectWithSix();
    const int first = dequeueReady();
    const int second = dequeueReady();
    const int third = dequeueReady();
    for (const int slot : {second, third, first})
        producer->cancelBuffer(slot, Fence::NO_FENCE);
    int slot = -1;
    for (const int expected : {second, third, first}) {
        EXPECT_EQ(NO_ERROR, dequeue(&slot));
        EXPECT_EQ(expected, slot);
    }
    EXPECT_EQ(kNeedsReallocation, dequeue(&slot)) << "slots without a buffer come last";
}

TEST_F(ABufferQueue, DequeueBeyondMaximumAfterAQueue_ReturnsInvalidOperation) {
    ASSERT_EQ(NO_ERROR, connect());
    queueOne();
    dequeueReady();
    int slot = -1;
    EXPECT_EQ(INVALID_OPERATION, dequeue(&slot));
}

TEST_F(ABufferQueue, AllocationFailure_IsReturnedAndFreesTheSlot) {
    connectWithSix();
    int slot = -1;
    {
        AllocationFault fault(NO_MEMORY);
        EXPECT_EQ(NO_MEMORY, dequeue(&slot));
    }
    EXPECT_EQ(kNeedsReallocation, dequeue(&slot));
    EXPECT_EQ(0, slot);
}

TEST_F(ABufferQueue, ReleaseAndCancelFences_ComeWithTheNextDequeue) {
    connectWithSix();
    SignalFence released;
    SignalFence cancelled;
    queueOne();
    consumer->releaseBuffer(acquire(), released.fence());
    int slot = -1;
    ASSERT_EQ(NO_ERROR, dequeue(&slot));
    EXPECT_EQ(released.fence(), fence);
    ASSERT_EQ(NO_ERROR, producer->cancelBuffer(slot, cancelled.fence()));
    ASSERT_EQ(NO_ERROR, dequeue(&slot));
    EXPECT_EQ(cancelled.fence(), fence);
}

// Waiting for a slot.

TEST_F(ABufferQueue, DequeueWithoutFreeSlot_WaitsForARelease) {
    connectWithSix();
    for (int i = 0; i < 7; i++)
        queueOne(i);
    const BufferItem held = acquire();
    std::future<int> waiting = std::async(std::launch::async, [&] {
        int slot = -1;
        EXPECT_EQ(NO_ERROR, dequeue(&slot));
        return slot;
    });
    EXPECT_EQ(std::future_status::timeout, waiting.wait_for(kBriefly));
    ASSERT_EQ(NO_ERROR, consumer->releaseBuffer(held));
    EXPECT_EQ(held.mSlot, waiting.get());
}

TEST_F(ABufferQueue, WaitingDequeue_GoesOnWhenTheLimitRises) {
    ASSERT_EQ(NO_ERROR, connect());
    dequeueReady();
    dequeueReady();
    std::future<int> waiting = std::async(std::launch::async, [&] {
        int slot = -1;
        EXPECT_EQ(kNeedsReallocation, dequeue(&slot));
        return slot;
    });
    EXPECT_EQ(std::future_status::timeout, waiting.wait_for(kBriefly));
    ASSERT_EQ(NO_ERROR, producer->setMaxDequeuedBufferCount(2));
    EXPECT_EQ(2, waiting.get());
}

TEST_F(ABufferQueue, WaitingDequeue_ReturnsNoInitWhenTheConsumerLeaves) {
    ASSERT_EQ(NO_ERROR, connect());
    dequeueReady();
    dequeueReady();
    std::future<status_t> waiting = std::async(std::launch::async, [&] {
        int slot = -1;
        return dequeue(&slot);
    });
    EXPECT_EQ(std::future_status::timeout, waiting.wait_for(kBriefly));
    consumer->abandon();
    EXPECT_EQ(NO_INIT, waiting.get());
}

TEST_F(ABufferQueue, BothSidesByApp_DequeueReturnsWouldBlock) {
    make(1, true);
    connectWithSix(true);
    int slot = -1;
    for (int i = 0; i < 8; i++)
        EXPECT_EQ(kNeedsReallocation, dequeue(&slot)) << "one slot more than in order";
    EXPECT_EQ(WOULD_BLOCK, dequeue(&slot));
}

TEST_F(ABufferQueue, AsyncMode_DequeueReturnsWouldBlock) {
    ASSERT_EQ(NO_ERROR, connect());
    ASSERT_EQ(NO_ERROR, producer->setAsyncMode(true));
    for (int i = 0; i < 3; i++)
        dequeueReady();
    int slot = -1;
    EXPECT_EQ(WOULD_BLOCK, dequeue(&slot));
}

TEST_F(ABufferQueue, DequeueTimeout_ReturnsTimedOut) {
    ASSERT_EQ(NO_ERROR, connect());
    ASSERT_EQ(NO_ERROR, producer->setDequeueTimeout(1000000));
    dequeueReady();
    dequeueReady();
    int slot = -1;
    EXPECT_EQ(TIMED_OUT, dequeue(&slot));
}

TEST_F(ABufferQueue, ConsumerWithOneExtraFrame_IsWaitedForEvenInAsyncMode) {
    ASSERT_EQ(NO_ERROR, connect());
    ASSERT_EQ(NO_ERROR, producer->setAsyncMode(true));
    queueOne();
    const BufferItem held = acquire();
    queueOne();
    acquire();
    queueOne();
    std::future<int> waiting = std::async(std::launch::async, [&] {
        int slot = -1;
        EXPECT_EQ(NO_ERROR, dequeue(&slot));
        return slot;
    });
    EXPECT_EQ(std::future_status::timeout, waiting.wait_for(kBriefly));
    ASSERT_EQ(NO_ERROR, consumer->releaseBuffer(held));
    EXPECT_EQ(held.mSlot, waiting.get());
}

TEST_F(ABufferQueue, FramesOfEarlierConnections_HoldUpTheNext) {
    for (int i = 0; i < 3; i++) {
        ASSERT_EQ(NO_ERROR, connect());
        queueOne(i);
        ASSERT_EQ(NO_ERROR, producer->disconnect(kCamera));
    }
    ASSERT_EQ(NO_ERROR, producer->setDequeueTimeout(1000000));
    ASSERT_EQ(NO_ERROR, connect());
    int slot = -1;
    EXPECT_EQ(TIMED_OUT, dequeue(&slot)) << "three frames wait, two slots are allowed";
    acquire();
    EXPECT_EQ(kNeedsReallocation, dequeue(&slot));
}

// Requesting, queueing, cancelling.

TEST_F(ABufferQueue, Request_OfSlotThatIsNotLent_ReturnsBadValue) {
    connectWithSix();
    for (const int slot : {-1, 0, 63, 64, INT32_MAX, INT32_MIN})
        EXPECT_EQ(BAD_VALUE, producer->requestBuffer(slot, &buffer)) << slot;
    const int slot = dequeueReady();
    const sp<GraphicBuffer> first = buffer;
    EXPECT_EQ(NO_ERROR, producer->requestBuffer(slot, &buffer));
    EXPECT_EQ(first, buffer) << "a request may be repeated";
}

TEST_F(ABufferQueue, Queue_ChecksFenceAndScalingBeforeTheConnection) {
    EXPECT_EQ(BAD_VALUE, producer->queueBuffer(0, frame(0, nullptr), &output));
    EXPECT_EQ(BAD_VALUE, producer->queueBuffer(0, frame(0, Fence::NO_FENCE, Rect(1, 1), 4), &output));
    EXPECT_EQ(NO_INIT, producer->queueBuffer(0, frame(), &output));
}

TEST_F(ABufferQueue, RefusedQueue_LeavesTheSlotLent) {
    connectWithSix();
    int slot = -1;
    dequeue(&slot);
    EXPECT_EQ(BAD_VALUE, producer->queueBuffer(slot, frame(), &output)) << "never requested";
    ASSERT_EQ(NO_ERROR, producer->requestBuffer(slot, &buffer));
    EXPECT_EQ(BAD_VALUE, producer->queueBuffer(slot, frame(0, nullptr), &output));
    EXPECT_EQ(BAD_VALUE,
              producer->queueBuffer(slot, frame(0, Fence::NO_FENCE, Rect(kWidth + 1, kHeight)), &output))
        << "crop outside the buffer";
    EXPECT_EQ(BAD_VALUE, producer->queueBuffer(slot + 1, frame(), &output)) << "another slot";
    EXPECT_EQ(BAD_VALUE, producer->queueBuffer(-1, frame(), &output));
    EXPECT_EQ(BAD_VALUE, producer->queueBuffer(64, frame(), &output));
    EXPECT_EQ(NO_ERROR, producer->queueBuffer(slot, frame(), &output));
    EXPECT_EQ(BAD_VALUE, producer->queueBuffer(slot, frame(), &output)) << "queued once";
}

TEST_F(ABufferQueue, CropOfALargerSizeThanLent_ReturnsBadValue) {
    connectWithSix();
    const int small = dequeueReady();
    EXPECT_EQ(BAD_VALUE,
              producer->queueBuffer(small, frame(0, Fence::NO_FENCE, Rect(2 * kWidth, kHeight)), &output));
    EXPECT_EQ(NO_ERROR, producer->queueBuffer(small, frame(0, Fence::NO_FENCE, Rect()), &output));
}

TEST_F(ABufferQueue, QueuedFrame_ArrivesAsItWasQueued) {
    connectWithSix();
    const int slot = dequeueReady();
    SignalFence written;
    written.signal();
    Producer::QueueBufferInput input(-5, false, HAL_DATASPACE_STANDARD_BT601_625, Rect(1, 2, 30, 40), 2, 4,
                                     written.fence());
    ASSERT_EQ(NO_ERROR, producer->queueBuffer(slot, input, &output));
    EXPECT_EQ(1u, output.numPendingBuffers);
    const BufferItem item = acquire();
    EXPECT_EQ(-5, item.mTimestamp);
    EXPECT_FALSE(item.mIsAutoTimestamp);
    EXPECT_EQ(HAL_DATASPACE_STANDARD_BT601_625, item.mDataSpace);
    EXPECT_EQ(Rect(1, 2, 30, 40), item.mCrop);
    EXPECT_EQ(2u, item.mScalingMode);
    EXPECT_EQ(4u, item.mTransform);
    EXPECT_EQ(written.fence(), item.mFence);
    EXPECT_EQ(slot, item.mSlot);
    EXPECT_EQ(1u, item.mFrameNumber);
    EXPECT_EQ(buffer, item.mGraphicBuffer);
}

TEST_F(ABufferQueue, UnknownDataSpace_BecomesTheConsumersDefault) {
    ASSERT_EQ(NO_ERROR, consumer->setDefaultBufferDataSpace(HAL_DATASPACE_ARBITRARY));
    connectWithSix();
    const int slot = dequeueReady();
    Producer::QueueBufferInput input(0, false, HAL_DATASPACE_UNKNOWN, Rect(), 0, 0, Fence::NO_FENCE);
    ASSERT_EQ(NO_ERROR, producer->queueBuffer(slot, input, &output));
    EXPECT_EQ(HAL_DATASPACE_ARBITRARY, acquire().mDataSpace);
}

TEST_F(ABufferQueue, FramesQueueInOrder_NoneReplaced) {
    make(8, true);
    connectWithSix(false);
    for (int64_t timestamp = 0; timestamp < 5; timestamp++) {
        queueOne(timestamp);
        EXPECT_FALSE(output.bufferReplaced);
    }
    for (int64_t timestamp = 0; timestamp < 5; timestamp++)
        EXPECT_EQ(timestamp, acquire().mTimestamp);
}

TEST_F(ABufferQueue, AsyncOrBothByApp_NewestFrameReplacesTheWaitingOne) {
    for (const bool async : {true, false}) {
        make(1, !async);
        ASSERT_EQ(NO_ERROR, connect(!async));
        ASSERT_EQ(NO_ERROR, producer->setAsyncMode(async));
        const int replaced = queueOne(1);
        queueOne(2);
        EXPECT_TRUE(output.bufferReplaced);
        EXPECT_EQ(1u, output.numPendingBuffers);
        EXPECT_EQ(2, acquire().mTimestamp);
        int slot = -1;
        EXPECT_EQ(NO_ERROR, dequeue(&slot));
        EXPECT_EQ(replaced, slot) << "the replaced frame's slot is free again";
    }
}

TEST_F(ABufferQueue, DequeueTimeoutOfBothByApp_EndsReplacement) {
    make(4, true);
    ASSERT_EQ(NO_ERROR, connect(true));
    ASSERT_EQ(NO_ERROR, producer->setDequeueTimeout(1000000));
    queueOne(1);
    queueOne(2);
    EXPECT_FALSE(output.bufferReplaced);
    EXPECT_EQ(1, acquire().mTimestamp);
}

TEST_F(ABufferQueue, Cancel_RefusesForeignSlotsAndNullFences) {
    connectWithSix();
    const int slot = dequeueReady();
    for (const int other : {-1, slot + 1, 64})
        EXPECT_EQ(BAD_VALUE, producer->cancelBuffer(other, Fence::NO_FENCE));
    EXPECT_EQ(BAD_VALUE, producer->cancelBuffer(slot, nullptr));
    EXPECT_EQ(NO_ERROR, producer->cancelBuffer(slot, Fence::NO_FENCE));
    EXPECT_EQ(BAD_VALUE, producer->cancelBuffer(slot, Fence::NO_FENCE));
}

// Limits.

TEST_F(ABufferQueue, SetMaxDequeuedToZeroThenSix_ChangesNothing) {
    connectWithSix();
    const int lent = queueOne() + 1;
    for (int i = 0; i < 6; i++)
        dequeueReady();
    EXPECT_EQ(BAD_VALUE, producer->setMaxDequeuedBufferCount(0));
    EXPECT_EQ(NO_ERROR, producer->setMaxDequeuedBufferCount(6));
    int slot = -1;
    EXPECT_EQ(INVALID_OPERATION, dequeue(&slot)) << "no lent slot was taken back";
    EXPECT_EQ(NO_ERROR, producer->queueBuffer(lent, frame(), &output));
}

TEST_F(ABufferQueue, SetMaxDequeued_RefusesImpossibleCounts) {
    for (const int count : {0, -1, INT32_MIN, 64, INT32_MAX})
        EXPECT_EQ(BAD_VALUE, producer->setMaxDequeuedBufferCount(count)) << count;
    EXPECT_EQ(NO_ERROR, producer->setMaxDequeuedBufferCount(63)) << "needs no connection; 63 + 1 slots";
    EXPECT_EQ(NO_ERROR, producer->setMaxDequeuedBufferCount(3));
    connectWithSix();
    for (int i = 0; i < 3; i++)
        dequeueReady();
    EXPECT_EQ(BAD_VALUE, producer->setMaxDequeuedBufferCount(2)) << "three are lent";
    EXPECT_EQ(NO_ERROR, producer->setMaxDequeuedBufferCount(3));
}

TEST_F(ABufferQueue, SetMaxDequeued_NeedsFreeSlotsToDrop) {
    connectWithSix();
    for (int i = 0; i < 6; i++)
        queueOne();
    EXPECT_EQ(BAD_VALUE, producer->setMaxDequeuedBufferCount(1)) << "one slot is free, five must go";
    EXPECT_EQ(NO_ERROR, producer->setMaxDequeuedBufferCount(5));
}

TEST_F(ABufferQueue, LoweredLimit_DropsFreeSlotsFirstThenTheNewestFreeBuffer) {
    connectWithSix();
    int slots[3];
    for (int& slot : slots)
        slot = dequeueReady();
    for (const int slot : {1, 0, 2})
        producer->cancelBuffer(slots[slot], Fence::NO_FENCE);
    // Slots 3 to 6 have no buffers; 1, 0, 2 have, in this order of release.
    ASSERT_EQ(NO_ERROR, producer->setMaxDequeuedBufferCount(1));
    int slot = -1;
    EXPECT_EQ(NO_ERROR, dequeue(&slot));
    EXPECT_EQ(1, slot);
    EXPECT_EQ(NO_ERROR, dequeue(&slot));
    EXPECT_EQ(0, slot);
}

TEST_F(ABufferQueue, MaxAcquired_TakesOneTo62) {
    EXPECT_EQ(BAD_VALUE, consumer->setMaxAcquiredBufferCount(0));
    EXPECT_EQ(BAD_VALUE, consumer->setMaxAcquiredBufferCount(63));
    EXPECT_EQ(NO_ERROR, consumer->setMaxAcquiredBufferCount(62));
    EXPECT_EQ(NO_ERROR, producer->setMaxDequeuedBufferCount(2));
    EXPECT_EQ(BAD_VALUE, producer->setMaxDequeuedBufferCount(3)) << "64 slots in all";
}

TEST(BufferItemConsumerDeathTest, RefusedCount_EndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    sp<Producer> producer;
    sp<IGraphicBufferConsumer> end;
    BufferQueue::createBufferQueue(&producer, &end);
    EXPECT_DEATH({ sp<BufferItemConsumer> refused(new BufferItemConsumer(end, 0, 63)); }, "");
}

TEST_F(ABufferQueue, AbsentOperation_EndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(producer->setSharedBufferMode(true), "setSharedBufferMode is absent");
}

// The consumer's side.

TEST_F(ABufferQueue, AcquireOfEmptyQueue_ReturnsNoBufferAvailable) {
    BufferItem item;
    EXPECT_EQ(IGraphicBufferConsumer::NO_BUFFER_AVAILABLE, consumer->acquireBuffer(&item, 0));
    EXPECT_EQ(BAD_VALUE, consumer->acquireBuffer(nullptr, 0));
}

TEST_F(ABufferQueue, AcquireBeyondOneMoreThanTheMaximum_ReturnsInvalidOperation) {
    connectWithSix();
    for (int i = 0; i < 3; i++)
        queueOne(i);
    BufferItem item;
    EXPECT_EQ(0, acquire().mTimestamp);
    EXPECT_EQ(1, acquire().mTimestamp);
    EXPECT_EQ(INVALID_OPERATION, consumer->acquireBuffer(&item, 0));
}

TEST_F(ABufferQueue, Release_OfFrameThatIsNotHeld_IsRefused) {
    connectWithSix();
    queueOne();
    const BufferItem item = acquire();
    EXPECT_EQ(BAD_VALUE, consumer->releaseBuffer(item, nullptr));
    EXPECT_EQ(NO_ERROR, consumer->releaseBuffer(item));
    EXPECT_EQ(BAD_VALUE, consumer->releaseBuffer(item)) << "released twice";
    int slot = -1;
    dequeue(&slot, 2 * kWidth);
    EXPECT_EQ(IGraphicBufferConsumer::STALE_BUFFER_SLOT, consumer->releaseBuffer(item))
        << "reallocated since";
    BufferItem outside;
    outside.mSlot = 64;
    EXPECT_EQ(BAD_VALUE, consumer->releaseBuffer(outside));
}

TEST_F(ABufferQueue, Acquire_WaitsForTheFramesFence) {
    connectWithSix();
    const int slot = dequeueReady();
    SignalFence written;
    ASSERT_EQ(NO_ERROR, producer->queueBuffer(slot, frame(1, written.fence()), &output));
    std::future<BufferItem> waiting = std::async(std::launch::async, [&] { return acquire(); });
    EXPECT_EQ(std::future_status::timeout, waiting.wait_for(kBriefly));
    written.signal();
    EXPECT_EQ(1, waiting.get().mTimestamp);
}

TEST_F(ABufferQueue, Abandoned_AnswersNoInitForGood) {
    connectWithSix();
    queueOne();
    const int lent = dequeueReady();
    consumer->abandon();
    consumer->abandon();
    int slot = -1;
    EXPECT_EQ(NO_INIT, dequeue(&slot));
    EXPECT_EQ(NO_INIT, producer->requestBuffer(lent, &buffer));
    EXPECT_EQ(NO_INIT, producer->queueBuffer(lent, frame(), &output));
    EXPECT_EQ(NO_INIT, producer->cancelBuffer(lent, Fence::NO_FENCE));
    EXPECT_EQ(NO_INIT, producer->setMaxDequeuedBufferCount(3));
    EXPECT_EQ(NO_INIT, connect());
    EXPECT_EQ(NO_ERROR, producer->disconnect(kCamera));
    BufferItem item;
    EXPECT_EQ(NO_INIT, consumer->acquireBuffer(&item, 0));
    EXPECT_EQ(NO_INIT, consumer->setDefaultBufferSize(1, 1));
}

TEST_F(ABufferQueue, ConsumersLastReference_AbandonsTheQueue) {
    connectWithSix();
    consumer.clear();
    int slot = -1;
    EXPECT_EQ(NO_INIT, dequeue(&slot));
}

// Counts frames and tells their order.
struct FrameLog : public ConsumerBase::FrameAvailableListener {
    void onFrameAvailable(const BufferItem& item) override { numbers.push_back(item.mFrameNumber); }
    void onFrameReplaced(const BufferItem&) override { replaced++; }
    std::vector<uint64_t> numbers;  // the queue delivers one notice at a time
    int replaced = 0;
};

TEST_F(ABufferQueue, FrameNotices_ComeInQueueOrderFromManyThreads) {
    make(1, false);
    connectWithSix();
    ASSERT_EQ(NO_ERROR, producer->setMaxDequeuedBufferCount(60));
    const sp<FrameLog> log(new FrameLog);
    consumer->setFrameAvailableListener(log);
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; i++) {
        threads.emplace_back([this] {
            for (int frames = 0; frames < 15; frames++) {
                int slot = -1;
                sp<Fence> ready;
                sp<GraphicBuffer> pixels;
                Producer::QueueBufferOutput told;
                EXPECT_GE(producer->dequeueBuffer(&slot, &ready, kWidth, kHeight, HAL_PIXEL_FORMAT_RGBA_8888,
                                                  0x20, nullptr, nullptr),
                          NO_ERROR);
                EXPECT_EQ(NO_ERROR, producer->requestBuffer(slot, &pixels));
                EXPECT_EQ(NO_ERROR, producer->queueBuffer(slot, frame(), &told));
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    ASSERT_EQ(45u, log->numbers.size());
    for (size_t i = 0; i < log->numbers.size(); i++)
        EXPECT_EQ(i + 1, log->numbers[i]);
}

TEST_F(ABufferQueue, ReplacedFrame_IsNotifiedAsReplacement) {
    ASSERT_EQ(NO_ERROR, connect());
    ASSERT_EQ(NO_ERROR, producer->setAsyncMode(true));
    const sp<FrameLog> log(new FrameLog);
    consumer->setFrameAvailableListener(log);
    queueOne();
    queueOne();
    EXPECT_EQ(1u, log->numbers.size());
    EXPECT_EQ(1, log->replaced);
    consumer->setFrameAvailableListener(nullptr);
    queueOne();
    EXPECT_EQ(1, log->replaced);
}

// Takes each frame from inside the notice.
struct Taker : public ConsumerBase::FrameAvailableListener {
    explicit Taker(const sp<BufferItemConsumer>& consumer) : consumer(consumer) {}
    void onFrameAvailable(const BufferItem&) override {
        BufferItem item;
        if (consumer->acquireBuffer(&item, 0) == NO_ERROR) taken += consumer->releaseBuffer(item) == NO_ERROR;
    }
    const sp<BufferItemConsumer> consumer;
    int taken = 0;
};

TEST_F(ABufferQueue, FrameNotice_MayAcquireAndRelease) {
    connectWithSix();
    const sp<Taker> taker(new Taker(consumer));
    consumer->setFrameAvailableListener(taker);
    for (int i = 0; i < 20; i++)
        EXPECT_EQ(0, queueOne());
    EXPECT_EQ(20, taker->taken);
}

struct ReleaseCounter : public IProducerListener {
    explicit ReleaseCounter(bool wanted) : wanted(wanted) {}
    void onBufferReleased() override { count++; }
    bool needsReleaseNotify() override { return wanted; }
    const bool wanted;
    std::atomic<int> count{0};
};

TEST_F(ABufferQueue, ProducerListener_HearsOfReleasesWhenItWants) {
    for (const bool wanted : {true, false}) {
        const sp<ReleaseCounter> listener(new ReleaseCounter(wanted));
        ASSERT_EQ(NO_ERROR, producer->connect(listener, kCamera, false, &output));
        queueOne();
        ASSERT_EQ(NO_ERROR, consumer->releaseBuffer(acquire()));
        EXPECT_EQ(wanted ? 1 : 0, listener->count);
        ASSERT_EQ(NO_ERROR, producer->disconnect(kCamera));
    }
}

TEST_F(ABufferQueue, ProducerAndConsumerThreads_PassEveryFrame) {
    constexpr int kFrames = 300;
    make(2, false);
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

TEST_F(ABufferQueue, Query_TellsTheConsumersWishes) {
    int value = -1;
    ASSERT_EQ(NO_ERROR, consumer->setDefaultBufferSize(7, 5));
    EXPECT_EQ(NO_ERROR, producer->query(NATIVE_WINDOW_WIDTH, &value));
    EXPECT_EQ(7, value);
    EXPECT_EQ(NO_ERROR, producer->query(NATIVE_WINDOW_MIN_UNDEQUEUED_BUFFERS, &value));
    EXPECT_EQ(1, value);
    EXPECT_EQ(NO_ERROR, producer->query(NATIVE_WINDOW_CONSUMER_USAGE_BITS, &value));
    EXPECT_EQ(GRALLOC_USAGE_SW_READ_OFTEN, static_cast<uint32_t>(value));
    EXPECT_EQ(BAD_VALUE, producer->query(999, &value));
    EXPECT_EQ(BAD_VALUE, producer->query(NATIVE_WINDOW_WIDTH, nullptr));
}

TEST(Surface, IsItsWindowAndKeepsItsProducer) {
    sp<Producer> producer;
    sp<IGraphicBufferConsumer> end;
    BufferQueue::createBufferQueue(&producer, &end);
    const sp<Surface> surface(new Surface(producer));
    ANativeWindow* const window = surface.get();
    EXPECT_EQ(surface.get(), static_cast<Surface*>(window));
    EXPECT_EQ(producer, surface->getIGraphicBufferProducer());
    {
        const sp<ANativeWindow> held(window);
        EXPECT_EQ(2, surface->getStrongCount()) << "a window's reference is the surface's";
    }
    EXPECT_EQ(1, surface->getStrongCount());
    ANativeWindow* const none = nullptr;
    EXPECT_EQ(nullptr, static_cast<Surface*>(none));
}

}  // namespace
