// That every field of a frame passes both adapters, and that memory must be sealed, is tested with the
// channels.

#include <gtest/gtest.h>
#include <gui/bufferqueue/1.0/H2BGraphicBufferProducer.h>
#include <system/window.h>

#include "ConsumerQueue.h"

using namespace android;
using hardware::graphics::bufferqueue::V1_0::utils::H2BGraphicBufferProducer;
using HPixelFormat = hardware::graphics::common::V1_0::PixelFormat;
using Wrapper = TWGraphicBufferProducer<HGraphicBufferProducer>;

namespace {

TEST(AnAdaptedQueue, GivesAFenceAndABufferAlsoWhenItFails) {
    const ConsumerQueue queue;
    const sp<IGraphicBufferProducer> producer = new H2BGraphicBufferProducer(queue.surface);
    IGraphicBufferProducer::QueueBufferOutput output;
    ASSERT_EQ(producer->connect(nullptr, NATIVE_WINDOW_API_CAMERA, false, &output), NO_ERROR);
    for (const int status : {int{IGraphicBufferProducer::BUFFER_NEEDS_REALLOCATION}, int{NO_INIT}}) {
        int slot = 8;
        sp<Fence> fence;
        EXPECT_EQ(producer->dequeueBuffer(&slot, &fence, 64, 1, HAL_PIXEL_FORMAT_RAW_OPAQUE,
                                          GRALLOC_USAGE_SW_WRITE_OFTEN, nullptr, nullptr),
                  status);
        EXPECT_EQ(slot, 0);
        ASSERT_NE(nullptr, fence);
        EXPECT_NE(Fence::NO_FENCE, fence);
        EXPECT_FALSE(fence->isValid());
        sp<GraphicBuffer> buffer;
        EXPECT_EQ(producer->requestBuffer(5, &buffer), status == NO_INIT ? NO_INIT : BAD_VALUE);
        ASSERT_NE(nullptr, buffer);
        EXPECT_EQ(buffer->initCheck(), NO_ERROR) << "only the status tells";
        EXPECT_EQ(buffer->getWidth(), 0u);
        queue.consumer->abandon();
    }
}

// A peer that cannot be reached: a failed result that nobody checks ends the process.
struct UnreachableProducer : public Wrapper {
    explicit UnreachableProducer(status_t status)
        : Wrapper(nullptr), failure(hardware::Status::fromStatusT(status)) {}
    Return<void> dequeueBuffer(uint32_t, uint32_t, HPixelFormat, uint32_t, bool, dequeueBuffer_cb) override {
        return failure;
    }
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
    }
}

}  // namespace
