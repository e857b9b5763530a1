#include "HidlConversions.h"

#include <fcntl.h>

namespace android {
namespace hidl_conversions {

using hardware::hidl_handle;
using hardware::graphics::common::V1_0::Dataspace;
using HPixelFormat = hardware::graphics::common::V1_0::PixelFormat;
using hardware::media::V1_0::AnwBuffer;

hidl_handle toHidl(const sp<Fence>& fence) {
    hidl_handle result;
    const int fd = fence != nullptr ? fence->dup() : -1;
    if (fd == -1) return result;
    native_handle_t* handle = native_handle_create(1, 0);
    handle->data[0] = fd;
    result.setTo(handle, true);
    return result;
}

sp<Fence> fenceFromHidl(const hidl_handle& handle) {
    const native_handle_t* native = handle.getNativeHandle();
    if (native == nullptr || (native->numFds == 0 && native->numInts == 0)) return new Fence;
    if (native->numFds != 1) return nullptr;
    const int fd = fcntl(native->data[0], F_DUPFD_CLOEXEC, 0);
    return fd != -1 ? sp<Fence>(new Fence(fd)) : nullptr;
}

AnwBuffer toHidl(const sp<GraphicBuffer>& buffer) {
    AnwBuffer result{};
    if (buffer == nullptr) return result;
    result.nativeHandle = buffer->handle;
    result.attr.width = buffer->getWidth();
    result.attr.height = buffer->getHeight();
    result.attr.stride = buffer->getStride();
    result.attr.format = static_cast<HPixelFormat>(buffer->getPixelFormat());
    result.attr.usage = static_cast<uint32_t>(buffer->getUsage());
    result.attr.generationNumber = buffer->getGenerationNumber();
    result.attr.layerCount = buffer->getLayerCount();
    result.attr.id = buffer->getId();
    return result;
}

sp<GraphicBuffer> bufferFromHidl(const AnwBuffer& buffer) {
    if (buffer.nativeHandle.getNativeHandle() == nullptr) return new GraphicBuffer;
    GraphicBuffer::Attributes attributes;
    attributes.width = buffer.attr.width;
    attributes.height = buffer.attr.height;
    attributes.stride = buffer.attr.stride;
    attributes.format = static_cast<PixelFormat>(buffer.attr.format);
    attributes.usage = buffer.attr.usage;
    attributes.generationNumber = buffer.attr.generationNumber;
    attributes.layerCount =
        buffer.attr.layerCount <= UINT32_MAX ? static_cast<uint32_t>(buffer.attr.layerCount) : 0;
    attributes.id = buffer.attr.id;
    return GraphicBuffer::importFrom(buffer.nativeHandle, attributes);
}

HProducer::QueueBufferInput toHidl(const BProducer::QueueBufferInput& input) {
    HProducer::QueueBufferInput result{};
    result.timestamp = input.timestamp;
    result.isAutoTimestamp = input.isAutoTimestamp;
    result.dataSpace = static_cast<Dataspace>(input.dataSpace);
    result.crop = {input.crop.left, input.crop.top, input.crop.right, input.crop.bottom};
    result.scalingMode = input.scalingMode;
    result.transform = input.transform;
    result.stickyTransform = input.stickyTransform;
    result.fence = toHidl(input.fence);
    result.getFrameTimestamps = input.getFrameTimestamps;
    return result;
}

BProducer::QueueBufferInput inputFromHidl(const HProducer::QueueBufferInput& input) {
    const Rect crop(input.crop.left, input.crop.top, input.crop.right, input.crop.bottom);
    return {input.timestamp,
            input.isAutoTimestamp != 0,
            static_cast<android_dataspace>(input.dataSpace),
            crop,
            input.scalingMode,
            input.transform,
            fenceFromHidl(input.fence),
            input.stickyTransform,
            input.getFrameTimestamps};
}

HProducer::QueueBufferOutput toHidl(const BProducer::QueueBufferOutput& output) {
    HProducer::QueueBufferOutput result{};
    result.width = output.width;
    result.height = output.height;
    result.transformHint = output.transformHint;
    result.numPendingBuffers = output.numPendingBuffers;
    result.nextFrameNumber = output.nextFrameNumber;
    result.bufferReplaced = output.bufferReplaced;
    return result;
}

void outputFromHidl(const HProducer::QueueBufferOutput& input, BProducer::QueueBufferOutput* output) {
    output->width = input.width;
    output->height = input.height;
    output->transformHint = input.transformHint;
    output->numPendingBuffers = input.numPendingBuffers;
    output->nextFrameNumber = input.nextFrameNumber;
    output->bufferReplaced = input.bufferReplaced;
}

}  // namespace hidl_conversions
}  // namespace android
