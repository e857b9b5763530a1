#include <gtest/gtest.h>
#include <gui/BufferItemConsumer.h>
#include <gui/BufferQueue.h>
#include <gui/bufferqueue/1.0/H2BGraphicBufferProducer.h>
#include <gui/bufferqueue/1.0/WGraphicBufferProducer.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <system/window.h>
#include <unistd.h>

#include "ScriptedProducer.h"
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
    AnAdaptedQueue() {
        sp<IGraphicBufferConsumer> end;
        BufferQueue::createBufferQueue(&queue, &end);
        consumer = new BufferItemConsumer(end, GRALLOC_USAGE_SW_READ_OFTEN);
        producer = new H2BGraphicBufferProducer(new Wrapper(queue));
        EXPECT_EQ(NO_ERROR, producer->connect(nullptr, kCamera, false, &output));
    }

    status_t dequeue() {
        return producer->dequeueBuffer(&slot, &fence, 64, 1, HAL_PIXEL_FORMAT_RAW_OPAQUE,
                                       GRALLOC_USAGE_SW_WRITE_OFTEN, nullptr, nullptr);
    }

    sp<IGraphicBufferProducer> queue;
    sp<BufferItemConsumer> consumer;
    sp<IGraphicBufferProducer> producer;
    IGraphicBufferProducer::QueueBufferOutput output;
    sp<Fence> fence;
    sp<GraphicBuffer> buffer;
    int slot = -1;
};

TEST_F(AnAdaptedQueue, GivesNewObjectsOfTheSameMemoryAndNeverNoFence) {
    EXPECT_EQ(IGraphicBufferProducer::BUFFER_NEEDS_REALLOCATION, dequeue());
    ASSERT_NE(nullptr, fence);
    EXPECT_NE(Fence::NO_FENCE, fence);
    EXPECT_FALSE(fence->isValid());

    sp<GraphicBuffer> original;
    ASSERT_EQ(NO_ERROR, queue->requestBuffer(slot, &original));
    ASSERT_EQ(NO_ERROR, producer->requestBuffer(slot, &buffer));
    EXPECT_NE(original, buffer);
    EXPECT_EQ(original->getUsage(), buffer->getUsage());
    EXPECT_EQ(original->getPixelFormat(), buffer->getPixelFormat());
    void* written = nullptr;
    void* seen = nullptr;
    ASSERT_EQ(NO_ERROR, buffer->lock(GRALLOC_USAGE_SW_WRITE_OFTEN, &written));
    ASSERT_EQ(NO_ERROR, original->lock(GRALLOC_USAGE_SW_READ_OFTEN, &seen));
    static_cast<uint8_t*>(written)[63] = 0x3C;
    EXPECT_EQ(0x3C, static_cast<uint8_t*>(seen)[63]);

    EXPECT_EQ(BAD_VALUE, producer->requestBuffer(5, &buffer));
    ASSERT_NE(nullptr, buffer);
    EXPECT_EQ(0u, buffer->getWidth());
    consumer->abandon();
    fence.clear();
    slot = 8;
    EXPECT_EQ(NO_INIT, dequeue());
    EXPECT_NE(nullptr, fence) << "on failure too";
    EXPECT_EQ(0, slot);
}

TEST_F(AnAdaptedQueue, PassesFramesAndFencesOnAsTheyWereGiven) {
    dequeue();
    ASSERT_EQ(NO_ERROR, producer->requestBuffer(slot, &buffer));
    SignalFence signal;
    EXPECT_EQ(BAD_VALUE, producer->cancelBuffer(slot, nullptr));
    ASSERT_EQ(NO_ERROR, producer->cancelBuffer(slot, signal.fence()));
    ASSERT_EQ(NO_ERROR, dequeue());
    EXPECT_EQ(-ETIME, fence->wait(0)) << "the fence of a cancel crosses as a live one";
    ASSERT_EQ(NO_ERROR, producer->requestBuffer(slot, &buffer));
    ASSERT_EQ(NO_ERROR, producer->queueBuffer(slot, frame(signal.fence()), &output));
    EXPECT_EQ(2u, output.nextFrameNumber);
    EXPECT_EQ(1u, output.numPendingBuffers);

    BufferItem item;
    ASSERT_EQ(NO_ERROR, consumer->acquireBuffer(&item, 0, false));
    EXPECT_EQ(-77, item.mTimestamp);
    EXPECT_TRUE(item.mIsAutoTimestamp);
    EXPECT_EQ(HAL_DATASPACE_STANDARD_BT601_625, item.mDataSpace);
    EXPECT_EQ(Rect(1, 0, 20, 1), item.mCrop);
    EXPECT_EQ(3u, item.mScalingMode);
    EXPECT_EQ(5u, item.mTransform);
    EXPECT_EQ(-ETIME, item.mFence->wait(0));
    signal.signal();
    EXPECT_EQ(NO_ERROR, item.mFence->wait(0));
    EXPECT_EQ(NO_ERROR, fence->wait(0));
    producer.clear();
    EXPECT_EQ(BAD_VALUE, queue->connect(nullptr, kCamera, false, &output)) << "still connected";
}

TEST(AWrappedProducer, RefusesAHandleThatIsNoFence) {
    const sp<ScriptedProducer> script(new ScriptedProducer);
    const sp<HGraphicBufferProducer> wrapped(new Wrapper(script));
    native_handle_t* handle = native_handle_create(2, 0);
    handle->data[0] = eventfd(0, 0);
    handle->data[1] = eventfd(0, 0);
    hidl_handle twoDescriptors;
    twoDescriptors.setTo(handle, true);
    HGraphicBufferProducer::QueueBufferInput input{};
    input.fence = twoDescriptors;
    int32_t status = 0;
    EXPECT_TRUE(wrapped->queueBuffer(0, input, [&](int32_t told, const auto&) { status = told; }).isOk());
    EXPECT_EQ(BAD_VALUE, status);
    EXPECT_EQ(BAD_VALUE, wrapped->cancelBuffer(0, twoDescriptors).withDefault(0));
    EXPECT_TRUE(script->calls().empty());
}

// Hands out memory that its owner may still shrink under whoever maps it.
struct HostileProducer : public Wrapper {
    HostileProducer() : Wrapper(nullptr) {}
    Return<void> requestBuffer(int32_t, requestBuffer_cb _hidl_cb) override {
        native_handle_t* const handle = native_handle_create(1, 0);
        handle->data[0] = memfd_create("hostile", MFD_CLOEXEC | MFD_ALLOW_SEALING);
        EXPECT_EQ(0, ftruncate(handle->data[0], 64));
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
    EXPECT_EQ(BAD_VALUE, producer->requestBuffer(0, &buffer));
    EXPECT_EQ(NO_ERROR, buffer->initCheck()) << "only the status tells";
    EXPECT_EQ(0u, buffer->getWidth());
}

// A peer that cannot be reached: every call fails, and a failed result that nobody checks ends the process.
struct UnreachableProducer : public Wrapper {
    explicit UnreachableProducer(status_t status)
        : Wrapper(nullptr), failure(hardware::Status::fromStatusT(status)) {}
    Return<void> requestBuffer(int32_t, requestBuffer_cb) override { return failure; }
    Return<int32_t> setMaxDequeuedBufferCount(int32_t) override { return failure; }
    Return<void> dequeueBuffer(uint32_t, uint32_t, HPixelFormat, uint32_t, bool, dequeueBuffer_cb) override {
        return failure;
    }
    Return<void> queueBuffer(int32_t, const QueueBufferInput&, queueBuffer_cb) override { return failure; }
    Return<int32_t> cancelBuffer(int32_t, const hidl_handle&) override { return failure; }
    Return<void> connect(const sp<HProducerListener>&, int32_t, bool, connect_cb) override { return failure; }
    Return<int32_t> disconnect(int32_t, DisconnectMode) override { return failure; }
    const hardware::Status failure;
};

TEST(AnUnreachablePeer, IsADeadObjectOrAnUnknownErrorToEveryCall) {
    const std::pair<status_t, status_t> kinds[] = {{DEAD_OBJECT, DEAD_OBJECT},
                                                   {FAILED_TRANSACTION, UNKNOWN_ERROR}};
    for (const auto& [failure, expected] : kinds) {
        const sp<IGraphicBufferProducer> producer =
            new H2BGraphicBufferProducer(new UnreachableProducer(failure));
        IGraphicBufferProducer::QueueBufferOutput output;
        int slot = 8;
        sp<Fence> fence;
        sp<GraphicBuffer> buffer;
        EXPECT_EQ(expected, producer->connect(nullptr, kCamera, false, &output));
        EXPECT_EQ(expected, producer->setMaxDequeuedBufferCount(6));
        EXPECT_EQ(expected, producer->dequeueBuffer(&slot, &fence, 1, 1, 1, 0, nullptr, nullptr));
        EXPECT_NE(nullptr, fence);
        EXPECT_EQ(expected, producer->requestBuffer(0, &buffer));
        EXPECT_NE(nullptr, buffer);
        EXPECT_EQ(expected, producer->queueBuffer(0, frame(), &output));
        EXPECT_EQ(expected, producer->cancelBuffer(0, Fence::NO_FENCE));
        EXPECT_EQ(expected, producer->disconnect(kCamera));
    }
}

}  // namespace
