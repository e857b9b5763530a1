#include "ReplacementQueue.h"

#include <hardware/gralloc.h>
#include <media/NdkImageReader.h>
#include <system/window.h>

// Last: a platform header that brings many names.
#include <gui/bufferqueue/1.0/H2BGraphicBufferProducer.h>

namespace vel::sim {

using android::Fence;
using android::IGraphicBufferProducer;
using android::NO_ERROR;
using android::sp;
using android::hardware::graphics::bufferqueue::V1_0::utils::H2BGraphicBufferProducer;

namespace {
constexpr int kMaxDequeuedBuffers = 6;
constexpr nsecs_t kDequeueLimitNs = 250'000'000;
}  // namespace

ReplacementQueue::ReplacementQueue(const sp<HidlProducer>& reader)
    : mProducer(new H2BGraphicBufferProducer(reader)) {
    IGraphicBufferProducer::QueueBufferOutput output;
    mStatus = mProducer->connect(nullptr, NATIVE_WINDOW_API_CAMERA, false, &output);
    if (mStatus == NO_ERROR) mStatus = mProducer->setMaxDequeuedBufferCount(kMaxDequeuedBuffers);
    if (mStatus == NO_ERROR) mStatus = mProducer->setDequeueTimeout(kDequeueLimitNs);
}

ReplacementQueue::~ReplacementQueue() {
    (void)mProducer->disconnect(NATIVE_WINDOW_API_CAMERA);
}

bool ReplacementQueue::dequeue(uint32_t rowBytes, int& slot) {
    sp<Fence> fence;
    mStatus = mProducer->dequeueBuffer(&slot, &fence, rowBytes, 1, AIMAGE_FORMAT_RAW_PRIVATE,
                                       GRALLOC_USAGE_SW_WRITE_OFTEN, nullptr, nullptr);
    if (mStatus < NO_ERROR) return false;
    const bool isNew = (mStatus & IGraphicBufferProducer::BUFFER_NEEDS_REALLOCATION) != 0;
    mStatus = NO_ERROR;
    if (isNew) mStatus = mProducer->requestBuffer(slot, &mBuffers.at(static_cast<size_t>(slot)));
    if (mStatus == NO_ERROR) mStatus = fence->waitForever("ReplacementQueue");
    return mStatus == NO_ERROR;
}

bool ReplacementQueue::send(uint32_t rowBytes, int64_t timestampNs,
                            const std::function<void(const sp<android::GraphicBuffer>&)>& fill) {
    int slot = -1;
    if (!dequeue(rowBytes, slot)) return false;
    fill(mBuffers.at(static_cast<size_t>(slot)));
    const IGraphicBufferProducer::QueueBufferInput input(
        timestampNs, false, HAL_DATASPACE_STANDARD_BT601_625, android::Rect(static_cast<int>(rowBytes), 1),
        NATIVE_WINDOW_SCALING_MODE_SCALE_TO_WINDOW, 0, Fence::NO_FENCE);
    IGraphicBufferProducer::QueueBufferOutput output;
    mStatus = mProducer->queueBuffer(slot, input, &output);
    return mStatus == NO_ERROR;
}

}  // namespace vel::sim
