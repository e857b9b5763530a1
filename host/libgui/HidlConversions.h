#pragma once

#include <android/hardware/graphics/bufferqueue/1.0/IGraphicBufferProducer.h>
#include <gui/IGraphicBufferProducer.h>

namespace android {
namespace hidl_conversions {

using HProducer = hardware::graphics::bufferqueue::V1_0::IGraphicBufferProducer;
using BProducer = android::IGraphicBufferProducer;

/** A handle with a descriptor of its own, empty for a null or invalid fence. */
hardware::hidl_handle toHidl(const sp<Fence>& fence);
/**
 * A new fence with a descriptor of its own, invalid for an empty handle; null for a handle that is no fence.
 */
sp<Fence> fenceFromHidl(const hardware::hidl_handle& handle);

/** Borrows the buffer's handle: valid as long as the buffer. Usage is cut to 32 bits. */
hardware::media::V1_0::AnwBuffer toHidl(const sp<GraphicBuffer>& buffer);
/**
 * A new buffer over the same memory, zero-sized for an empty handle, null when the handle or the attributes
 * cannot be used.
 */
sp<GraphicBuffer> bufferFromHidl(const hardware::media::V1_0::AnwBuffer& buffer);

HProducer::QueueBufferInput toHidl(const BProducer::QueueBufferInput& input);
/** The fence is null when the handle is no fence. */
BProducer::QueueBufferInput inputFromHidl(const HProducer::QueueBufferInput& input);

HProducer::QueueBufferOutput toHidl(const BProducer::QueueBufferOutput& output);
/** Leaves maxBufferCount alone: it does not cross. */
void outputFromHidl(const HProducer::QueueBufferOutput& input, BProducer::QueueBufferOutput* output);

}  // namespace hidl_conversions
}  // namespace android
