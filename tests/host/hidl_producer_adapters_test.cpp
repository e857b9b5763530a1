#include <gtest/gtest.h>
#include <gui/bufferqueue/1.0/H2BGraphicBufferProducer.h>
#include <sys/mman.h>
#include <system/window.h>
#include <unistd.h>

#include "ConsumerQueue.h"
#include "SignalFence.h"

using namespace android;
using hardware::graphics::bufferqueue::V1_0::utils::H2BGraphicBufferProducer;
using hardware::media::V1_0::AnwBuffer;
using HPixelFormat = hardware::graphics::common::V1_0::PixelFormat;
using Wrapper = TWGraphicBufferProducer<HGraphicBufferProducer>;

namespace {

constexpr int kCamera = NATIVE_WINDOW_API_CAMERA;

BGraphicBufferProducer::QueueBufferInput frame(const sp<Fence>& fence = Fence::NO_FENCE) {
    return {-77, true, HAL_DATASPACE_STANDARD_BT601_625, Rect(1, 0, 20, 1), 3, 5, fence, 6};
}

// A real queue that is reached through both adapters, as by a camera library.
class AnAdaptedQueue : public testing::Test {
  protected:
    AnAdaptedQueue() { EXPECT_EQ(producer->connect(nullptr, kCamera, false, &output), NO_ERROR); }

    status_t dequeue() {
        return producer->dequeueBuffer(&slot, &fence, 64, 1, HAL_PIXEL_FORMAT_RAW_OPAQUE,
                                       GRALLOC_USAGE_SW_WRITE_OFTEN, nullptr, nullptr);
    }

    const ConsumerQueue queue;
    const sp<IGraphicBufferProducer> producer = new H2BGraphicBufferProducer(queue.surface);
    IGraphicBufferProducer::QueueBufferOutput output;
    sp<Fence> fence;
    sp<GraphicBuffer> buffer;
    int slot = -1;
};

TEST_F(AnAdaptedQueue, GivesAFenceAndABufferAlsoWhenItFails) {
    EXPECT_EQ(dequeue(), IGraphicBufferProducer::BUFFER_NEEDS_REALLOCATION);
    ASSERT_NE(nullptr, fence);
    EXPECT_NE(Fence::NO_FENCE, fence);
    EXPECT_FALSE(fence->isValid());
    EXPECT_EQ(producer->requestBuffer(5, &buffer), BAD_VALUE);
    ASSERT_NE(nullptr, buffer);
    EXPECT_EQ(buffer->getWidth(), 0u);
    queue.consumer->abandon();
    fence.clear();
    slot = 8;
    EXPECT_EQ(dequeue(), NO_INIT);
    EXPECT_NE(nullptr, fence);
    EXPECT_EQ(slot, 0);
}

TEST_F(AnAdaptedQueue, PassesEveryFieldOfAFrameOn) {
    dequeue();
    ASSERT_EQ(producer->requestBuffer(slot, &buffer), NO_ERROR);
    SignalFence signal;
    ASSERT_EQ(producer->queueBuffer(slot, frame(signal.fence()), &output), NO_ERROR);
    BufferItem item;
    ASSERT_EQ(queue.consumer->acquireBuffer(&item, 0, false), NO_ERROR);
    EXPECT_EQ(item.mTimestamp, -77);
    EXPECT_TRUE(item.mIsAutoTimestamp);
    EXPECT_EQ(item.mDataSpace, HAL_DATASPACE_STANDARD_BT601_625);
    EXPECT_EQ(Rect(1, 0, 20, 1), item.mCrop);
    EXPECT_EQ(item.mScalingMode, 3u);
    EXPECT_EQ(item.mTransform, 5u);
    EXPECT_EQ(item.mFence->wait(0), -ETIME);
    signal.signal();
    EXPECT_EQ(item.mFence->wait(0), NO_ERROR);
}

// Hands out memory that its owner may still shrink under whoever maps it.
struct HostileProducer : public Wrapper {
    HostileProducer() : Wrapper(nullptr) {}
    Return<void> requestBuffer(int32_t, requestBuffer_cb _hidl_cb) override {
        native_handle_t* const handle = native_handle_create(1, 0);
        handle->data[0] = memfd_create("hostile", MFD_CLOEXEC | MFD_ALLOW_SEALING);
        EXPECT_EQ(ftruncate(handle->data[0], 64), 0);
        AnwBuffer given{};
        given.nativeHandle.setTo(handle, true);
        given.attr = {64, 1, 64, HPixelFormat::BLOB, GRALLOC_USAGE_SW_WRITE_OFTEN, 0, 1, 1};
        _hidl_cb(NO_ERROR, given);
        return hardware::Void();
    }
};

TEST(AnAdaptedPeer, CannotGiveMemoryThatMayBeTakenAway) {
    sp<GraphicBuffer> buffer;
    const sp<IGraphicBufferProducer> producer = new H2BGraphicBufferProducer(new HostileProducer);
    EXPECT_EQ(producer->requestBuffer(0, &buffer), BAD_VALUE);
    EXPECT_EQ(buffer->initCheck(), NO_ERROR) << "only the status tells";
    EXPECT_EQ(buffer->getWidth(), 0u);
}

// A peer that cannot be reached: a failed result that nobody checks ends the process.
struct UnreachableProducer : public Wrapper {
    explicit UnreachableProducer(status_t status)
        : Wrapper(nullptr), failure(hardware::Status::fromStatusT(status)) {}
    Return<void> dequeueBuffer(uint32_t, uint32_t, HPixelFormat, uint32_t, bool, dequeueBuffer_cb) override {
        return failure;
    }
    Return<int32_t> disconnect(int32_t, DisconnectMode) override { return failure; }
    const hardware::Status failure;
};

TEST(AnUnreachablePeer, IsADeadObjectOrAnUnknownError) {
    const std::pair<status_t, status_t> kinds[] = {{DEAD_OBJECT, DEAD_OBJECT},
                                                   {FAILED_TRANSACTION, UNKNOWN_ERROR}};
    for (const auto& [failure, expected] : kinds) {
        const sp<IGraphicBufferProducer> producer =
            new H2BGraphicBufferProducer(new UnreachableProducer(failure));
        int slot = 8;
        sp<Fence> fence;
        EXPECT_EQ(expected, producer->dequeueBuffer(&slot, &fence, 1, 1, 1, 0, nullptr, nullptr));
        EXPECT_NE(nullptr, fence);
        EXPECT_EQ(expected, producer->disconnect(kCamera));
    }
}

}  // namespace
