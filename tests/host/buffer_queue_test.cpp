#include <gtest/gtest.h>
#include <gui/IProducerListener.h>
#include <system/window.h>
#include <ui/AllocationFault.h>

#include <functional>
#include <future>

#include "ConsumerQueue.h"
#include "SignalFence.h"

using namespace android;

namespace {

using Producer = IGraphicBufferProducer;
constexpr int kCamera = NATIVE_WINDOW_API_CAMERA;
constexpr int kNeedsReallocation = Producer::BUFFER_NEEDS_REALLOCATION;
constexpr uint32_t kWidth = 320, kHeight = 240;
constexpr auto kBriefly = std::chrono::milliseconds(30);

// A producer that is connected as the camera library does, seven slots then, and a consumer that may hold one
// frame.
class ABufferQueue : public testing::Test {
  protected:
    ABufferQueue() { make(); }

    void make() {
        ConsumerQueue made;
        producer = made.producer;
        consumer = made.consumer;
        EXPECT_EQ(connect(), NO_ERROR);
        EXPECT_EQ(producer->setMaxDequeuedBufferCount(6), NO_ERROR);
    }
    status_t connect() { return producer->connect(nullptr, kCamera, false, &output); }
    status_t dequeue(uint32_t w = kWidth, uint32_t h = kHeight) {
        return producer->dequeueBuffer(&slot, &fence, w, h, HAL_PIXEL_FORMAT_RGBA_8888,
                                       GRALLOC_USAGE_SW_WRITE_OFTEN, nullptr, nullptr);
    }
    status_t request(int which) { return producer->requestBuffer(which, &buffer); }
    status_t queue(int which, int64_t timestamp = 0, const sp<Fence>& written = Fence::NO_FENCE,
                   const Rect& crop = Rect(kWidth, kHeight)) {
        return producer->queueBuffer(which, {timestamp, false, HAL_DATASPACE_ARBITRARY, crop, 1, 0, written},
                                     &output);
    }
    status_t cancel(int which) { return producer->cancelBuffer(which, Fence::NO_FENCE); }
    void queueOne(int64_t timestamp = 0) {
        EXPECT_GE(dequeue(), NO_ERROR);
        EXPECT_EQ(request(slot), NO_ERROR);
        EXPECT_EQ(queue(slot, timestamp), NO_ERROR);
    }
    BufferItem acquire() {
        BufferItem item;
        EXPECT_EQ(consumer->acquireBuffer(&item, 0), NO_ERROR);
        return item;
    }

    sp<Producer> producer;
    sp<BufferItemConsumer> consumer;
    Producer::QueueBufferOutput output;
    int slot = -1;  // of the latest dequeue, as are the next two
    sp<Fence> fence;
    sp<GraphicBuffer> buffer;
};

TEST_F(ABufferQueue, ReconnectTakesSlotsBackAndKeepsLimitsAndQueuedFrames) {
    queueOne(11);
    const uint64_t oldId = buffer->getId();
    ASSERT_GE(dequeue(), NO_ERROR);
    ASSERT_EQ(request(slot), NO_ERROR);
    EXPECT_EQ(producer->disconnect(-1), NO_ERROR) << "whichever is connected";
    EXPECT_EQ(producer->disconnect(-1), NO_ERROR) << "none";
    EXPECT_EQ(producer->disconnect(kCamera), NO_INIT);
    ASSERT_EQ(connect(), NO_ERROR);
    EXPECT_EQ(queue(slot), BAD_VALUE) << "the slot is no longer lent";

    const BufferItem item = acquire();
    EXPECT_EQ(item.mTimestamp, 11);
    EXPECT_EQ(oldId, item.mGraphicBuffer->getId()) << "the frame's memory must still be there";
    EXPECT_EQ(consumer->releaseBuffer(item), IGraphicBufferConsumer::STALE_BUFFER_SLOT);
    for (int expected = 0; expected < 7; expected++) {
        EXPECT_EQ(dequeue(), kNeedsReallocation);
        EXPECT_EQ(expected, slot);
    }
    EXPECT_EQ(cancel(0), NO_ERROR);
    EXPECT_EQ(dequeue(2 * kWidth), kNeedsReallocation) << "a buffer of another size does not do";
}

TEST_F(ABufferQueue, LendsBuffersAgainWithTheFencesThatTheyCameBackWith) {
    SignalFence released, cancelled;
    queueOne();
    ASSERT_EQ(consumer->releaseBuffer(acquire(), released.fence()), NO_ERROR);
    EXPECT_EQ(dequeue(), NO_ERROR);
    EXPECT_EQ(slot, 0) << "a consumer that keeps up needs one slot only";
    EXPECT_EQ(released.fence(), fence);
    EXPECT_EQ(producer->cancelBuffer(0, cancelled.fence()), NO_ERROR);
    EXPECT_EQ(dequeue(), NO_ERROR);
    EXPECT_EQ(cancelled.fence(), fence);
}

TEST_F(ABufferQueue, BlockedDequeueGoesOnWithAReleaseARaisedLimitAndTheConsumersEnd) {
    BufferItem held;
    const std::pair<status_t, std::function<void()>> rows[] = {
        {NO_ERROR, [&] { EXPECT_EQ(consumer->releaseBuffer(held), NO_ERROR); }},
        {kNeedsReallocation, [&] { EXPECT_EQ(producer->setMaxDequeuedBufferCount(7), NO_ERROR); }},
        {NO_INIT, [&] { consumer->abandon(); }},
    };
    for (const auto& [status, event] : rows) {
        make();
        for (int i = 0; i < 7; i++)
            queueOne(i);
        held = acquire();
        std::future<status_t> waiting = std::async(std::launch::async, [this] { return dequeue(); });
        EXPECT_EQ(std::future_status::timeout, waiting.wait_for(kBriefly));
        event();
        EXPECT_EQ(status, waiting.get());
    }
}

TEST_F(ABufferQueue, RefusesWhatDoesNotFitAndStaysAsItWas) {
    EXPECT_EQ(dequeue(0, kHeight), BAD_VALUE);
    {
        AllocationFault fault(NO_MEMORY);
        EXPECT_EQ(dequeue(), NO_MEMORY);
    }
    ASSERT_EQ(dequeue(), kNeedsReallocation);
    EXPECT_EQ(slot, 0) << "the failed allocation gave its slot back";
    for (const int other : {-1, 1, 63, 64, INT32_MAX, INT32_MIN}) {
        EXPECT_EQ(request(other), BAD_VALUE) << other;
        EXPECT_EQ(queue(other), BAD_VALUE) << other;
        EXPECT_EQ(cancel(other), BAD_VALUE) << other;
    }
    EXPECT_EQ(queue(0), BAD_VALUE) << "never requested";
    ASSERT_EQ(request(0), NO_ERROR);
    EXPECT_EQ(queue(0, 0, nullptr), BAD_VALUE);
    EXPECT_EQ(queue(0, 0, Fence::NO_FENCE, Rect(kWidth + 1, kHeight)), BAD_VALUE);
    EXPECT_EQ(producer->cancelBuffer(0, nullptr), BAD_VALUE);
    EXPECT_EQ(queue(0), NO_ERROR) << "every refusal left it lent";
    EXPECT_EQ(queue(0), BAD_VALUE) << "queued once";
    EXPECT_EQ(cancel(0), BAD_VALUE);
}

// That its memory must be sealed is tested with the channel that carries it.
TEST(AnImportedBuffer, CannotFaultLater) {
    const sp<GraphicBuffer> original =
        new GraphicBuffer(4096, 1, HAL_PIXEL_FORMAT_RAW_OPAQUE, 1, GRALLOC_USAGE_SW_WRITE_OFTEN);
    for (const uint32_t width : {4097, 0, 16}) {  // memory too small, none, rows of another length
        GraphicBuffer::Attributes attributes = original->attributes();
        attributes.width = width;
        if (width != 16) attributes.stride = width;
        EXPECT_EQ(GraphicBuffer::importFrom(original->handle, attributes), nullptr) << width;
    }
    EXPECT_EQ(GraphicBuffer::importFrom(nullptr, original->attributes()), nullptr);
}

}  // namespace
