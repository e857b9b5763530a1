#include "ProducerWire.h"

#include <cutils/native_handle.h>

#include <vector>

#include "DesktopBusNames.h"

namespace vel::dbus_transport {

using android::hardware::hidl_handle;
using android::hardware::media::V1_0::AnwBuffer;
using sdbus::Message;

namespace {

template <typename Enum>
void readEnum(Message& message, Enum& value) {
    int32_t number = 0;
    message >> number;
    value = static_cast<Enum>(number);
}

sdbus::Error notAHandle() {
    return sdbus::Error(desktop_bus::kErrorInvalidArgs,
                        "a handle has at most one descriptor and no integers");
}

}  // namespace

Message& operator<<(Message& message, const hidl_handle& handle) {
    std::vector<sdbus::UnixFd> descriptors;
    if (const native_handle_t* native = handle.getNativeHandle()) {
        if (native->numFds > 1 || native->numInts != 0) throw notAHandle();
        if (native->numFds == 1) descriptors.emplace_back(native->data[0]);
    }
    return message << descriptors;
}

Message& operator>>(Message& message, hidl_handle& handle) {
    std::vector<sdbus::UnixFd> descriptors;
    message >> descriptors;
    if (descriptors.size() > 1) throw notAHandle();
    if (descriptors.empty()) {
        handle = nullptr;
        return message;
    }
    native_handle_t* native = native_handle_create(1, 0);
    native->data[0] = descriptors[0].release();
    handle.setTo(native, true);
    return message;
}

Message& operator<<(Message& message, const AnwBuffer& buffer) {
    const auto& attributes = buffer.attr;
    writeAll(message, buffer.nativeHandle, attributes.width, attributes.height, attributes.stride,
             static_cast<int32_t>(attributes.format), attributes.usage, attributes.generationNumber,
             attributes.layerCount, attributes.id);
    return message;
}

Message& operator>>(Message& message, AnwBuffer& buffer) {
    auto& attributes = buffer.attr;
    readAll(message, buffer.nativeHandle, attributes.width, attributes.height, attributes.stride);
    readEnum(message, attributes.format);
    readAll(message, attributes.usage, attributes.generationNumber, attributes.layerCount, attributes.id);
    return message;
}

Message& operator<<(Message& message, const IGraphicBufferProducer::QueueBufferInput& input) {
    writeAll(message, input.timestamp, input.isAutoTimestamp, static_cast<int32_t>(input.dataSpace),
             input.crop.left, input.crop.top, input.crop.right, input.crop.bottom, input.scalingMode,
             input.transform, input.stickyTransform, input.fence);
    return message;
}

Message& operator>>(Message& message, IGraphicBufferProducer::QueueBufferInput& input) {
    readAll(message, input.timestamp, input.isAutoTimestamp);
    readEnum(message, input.dataSpace);
    readAll(message, input.crop.left, input.crop.top, input.crop.right, input.crop.bottom, input.scalingMode,
            input.transform, input.stickyTransform, input.fence);
    input.getFrameTimestamps = false;
    return message;
}

Message& operator<<(Message& message, const IGraphicBufferProducer::QueueBufferOutput& output) {
    writeAll(message, output.width, output.height, output.transformHint, output.numPendingBuffers,
             output.nextFrameNumber, output.bufferReplaced);
    return message;
}

Message& operator>>(Message& message, IGraphicBufferProducer::QueueBufferOutput& output) {
    readAll(message, output.width, output.height, output.transformHint, output.numPendingBuffers,
            output.nextFrameNumber, output.bufferReplaced);
    return message;
}

}  // namespace vel::dbus_transport
