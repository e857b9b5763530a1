#include <android/hardware/graphics/bufferqueue/1.0/IGraphicBufferProducer.h>

#include "BaseOperations.h"

namespace android::hardware::graphics::bufferqueue::V1_0 {

using media::V1_0::AnwBuffer;

const char* IGraphicBufferProducer::descriptor =
    "android.hardware.graphics.bufferqueue@1.0::IGraphicBufferProducer";

VEL_DEFINE_BASE_OPERATIONS(IGraphicBufferProducer)

namespace {

// Answers a call that the queue does not have; `results` are INVALID_OPERATION and empty values.
template <typename Reply, typename... Results>
Return<void> refuse(const Reply& reply, const Results&... results) {
    if (reply == nullptr) return vel::host::nullReplyFunction();
    reply(results...);
    return Void();
}

}  // namespace

Return<int32_t> IGraphicBufferProducer::setAsyncMode(bool) {
    return INVALID_OPERATION;
}

Return<int32_t> IGraphicBufferProducer::detachBuffer(int32_t) {
    return INVALID_OPERATION;
}

Return<void> IGraphicBufferProducer::detachNextBuffer(detachNextBuffer_cb _hidl_cb) {
    return refuse(_hidl_cb, INVALID_OPERATION, AnwBuffer{}, hidl_handle{});
}

Return<void> IGraphicBufferProducer::attachBuffer(const AnwBuffer&, attachBuffer_cb _hidl_cb) {
    return refuse(_hidl_cb, INVALID_OPERATION, -1);
}

Return<void> IGraphicBufferProducer::query(int32_t, query_cb _hidl_cb) {
    return refuse(_hidl_cb, INVALID_OPERATION, 0);
}

Return<int32_t> IGraphicBufferProducer::setSidebandStream(const hidl_handle&) {
    return INVALID_OPERATION;
}

Return<void> IGraphicBufferProducer::allocateBuffers(uint32_t, uint32_t, graphics::common::V1_0::PixelFormat,
                                                     uint32_t) {
    return Void();
}

Return<int32_t> IGraphicBufferProducer::allowAllocation(bool) {
    return INVALID_OPERATION;
}

Return<int32_t> IGraphicBufferProducer::setGenerationNumber(uint32_t) {
    return INVALID_OPERATION;
}

Return<void> IGraphicBufferProducer::getConsumerName(getConsumerName_cb _hidl_cb) {
    return refuse(_hidl_cb, hidl_string{});
}

Return<int32_t> IGraphicBufferProducer::setSharedBufferMode(bool) {
    return INVALID_OPERATION;
}

Return<int32_t> IGraphicBufferProducer::setAutoRefresh(bool) {
    return INVALID_OPERATION;
}

Return<int32_t> IGraphicBufferProducer::setDequeueTimeout(int64_t) {
    return INVALID_OPERATION;
}

Return<void> IGraphicBufferProducer::getLastQueuedBuffer(getLastQueuedBuffer_cb _hidl_cb) {
    return refuse(_hidl_cb, INVALID_OPERATION, AnwBuffer{}, hidl_handle{}, hidl_array<float, 16>{});
}

Return<void> IGraphicBufferProducer::getFrameTimestamps(getFrameTimestamps_cb _hidl_cb) {
    return refuse(_hidl_cb, FrameEventHistoryDelta{});
}

Return<void> IGraphicBufferProducer::getUniqueId(getUniqueId_cb _hidl_cb) {
    return refuse(_hidl_cb, INVALID_OPERATION, 0u);
}

}  // namespace android::hardware::graphics::bufferqueue::V1_0
