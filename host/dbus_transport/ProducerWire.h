#pragma once

#include <android/hardware/graphics/bufferqueue/1.0/IGraphicBufferProducer.h>
#include <sdbus-c++/sdbus-c++.h>

#include <tuple>

/**
 * The values of a buffer queue's producer on their way over the bus. Each is written as its fields in order;
 * the signatures of the methods stand in DesktopBusNames.h.
 *
 * On the thread of the message's connection; throw sdbus::Error.
 */
namespace vel::dbus_transport {

using IGraphicBufferProducer = android::hardware::graphics::bufferqueue::V1_0::IGraphicBufferProducer;

/**
 * A handle's descriptor as "ah", empty for an empty handle. Handles with integers or with several
 * descriptors are refused. What is read owns its descriptor.
 */
sdbus::Message& operator<<(sdbus::Message& message, const android::hardware::hidl_handle& handle);
sdbus::Message& operator>>(sdbus::Message& message, android::hardware::hidl_handle& handle);

sdbus::Message& operator<<(sdbus::Message& message, const android::hardware::media::V1_0::AnwBuffer& buffer);
sdbus::Message& operator>>(sdbus::Message& message, android::hardware::media::V1_0::AnwBuffer& buffer);

/** Without damage and frame timestamps: the queue has neither. */
sdbus::Message& operator<<(sdbus::Message& message, const IGraphicBufferProducer::QueueBufferInput& input);
sdbus::Message& operator>>(sdbus::Message& message, IGraphicBufferProducer::QueueBufferInput& input);
sdbus::Message& operator<<(sdbus::Message& message, const IGraphicBufferProducer::QueueBufferOutput& output);
sdbus::Message& operator>>(sdbus::Message& message, IGraphicBufferProducer::QueueBufferOutput& output);

template <typename... Values>
void writeAll(sdbus::Message& message, const Values&... values) {
    (void)(message << ... << values);
}

template <typename... Values>
void readAll(sdbus::Message& message, Values&... values) {
    (void)(message >> ... >> values);
}

}  // namespace vel::dbus_transport
