#include "ReplacementQueue.h"

#include <hardware/gralloc.h>
#include <media/NdkImageReader.h>
#include <system/window.h>

// Last: a platform header that brings many names.
#include <gui/bufferqueue/1.0/H2BGraphicBufferProducer.h>

namespace vel::sim {

using android::Fence;
using android::GraphicBuffer;
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
    connect();
}

void ReplacementQueue::connect() {
    mBuffers = {};
    IGraphicBufferProducer::QueueBufferOutput output;
    mStatus = mProducer->connect(nullptr, NATIVE_WINDOW_API_CAMERA, false, &output);
    if (mStatus == NO_ERROR) mStatus = mProducer->setMaxDequeuedBufferCount(kMaxDequeuedBuffers);
    if (mStatus == NO_ERROR) mStatus = mProducer->setDequeueTimeout(kDequeueLimitNs);
}

ReplacementQueue::~ReplacementQueue() {
    (void)mProducer->disconnect(NATIVE_WINDOW_API_CAMERA);
}

// The HAL may answer anything.
sp<GraphicBuffer> ReplacementQueue::dequeue(uint32_t rowBytes, int& slot) {
    sp<Fence> fence;
    const auto ask = [&] {
        return mProducer->dequeueBuffer(&slot, &fence, rowBytes, 1, AIMAGE_FORMAT_RAW_PRIVATE,
                                        GRALLOC_USAGE_SW_WRITE_OFTEN, nullptr, nullptr);
    };
    android::status_t answer = ask();
    if (answer == android::NO_INIT) {  // somebody has disconnected the queue
        connect();
        answer = ask();
    }
    const bool isSlot = slot >= 0 && static_cast<size_t>(slot) < mBuffers.size();
    mStatus = answer < NO_ERROR ? answer : NO_ERROR;
    if (mStatus == NO_ERROR && !isSlot) mStatus = android::BAD_INDEX;
    if (mStatus != NO_ERROR) return nullptr;
    sp<GraphicBuffer>& buffer = mBuffers[static_cast<size_t>(slot)];
    if ((answer & IGraphicBufferProducer::BUFFER_NEEDS_REALLOCATION) != 0)
        mStatus = mProducer->requestBuffer(slot, &buffer);
    if (mStatus == NO_ERROR && (buffer == nullptr || buffer->getWidth() != rowBytes))
        mStatus = android::BAD_VALUE;
    if (mStatus == NO_ERROR) mStatus = fence->waitForever("ReplacementQueue");
    if (mStatus == NO_ERROR) return buffer;
    (void)mProducer->cancelBuffer(slot, fence);
    return nullptr;
}

bool ReplacementQueue::send(uint32_t rowBytes, int64_t timestampNs,
                            const std::function<void(const sp<GraphicBuffer>&)>& fill) {
    int slot = -1;
    const sp<GraphicBuffer> buffer = dequeue(rowBytes, slot);
    if (buffer == nullptr) return false;
    fill(buffer);
    const IGraphicBufferProducer::QueueBufferInput input(
        timestampNs, false, HAL_DATASPACE_STANDARD_BT601_625, android::Rect(static_cast<int>(rowBytes), 1),
        NATIVE_WINDOW_SCALING_MODE_SCALE_TO_WINDOW, 0, Fence::NO_FENCE);
    IGraphicBufferProducer::QueueBufferOutput output;
    mStatus = mProducer->queueBuffer(slot, input, &output);
    return mStatus == NO_ERROR;
}

}  // namespace vel::sim
