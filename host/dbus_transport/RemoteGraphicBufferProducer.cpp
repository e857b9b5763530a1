#include "RemoteGraphicBufferProducer.h"

#include <string>

#include "DesktopBusNames.h"

namespace vel::dbus_transport {

namespace bus = vel::desktop_bus;
using android::sp;
using android::hardware::Void;

RemoteGraphicBufferProducer::RemoteGraphicBufferProducer(DesktopTransport& transport,
                                                         const RemoteObject& target)
    : mLink(transport, this, target, bus::kProducerInterface) {}

RemoteGraphicBufferProducer::~RemoteGraphicBufferProducer() {
    mLink.transport().giveBack(mLink.target());
}

template <typename... Results, typename ReplyFunction, typename... Arguments>
android::hardware::Return<void> RemoteGraphicBufferProducer::ask(const char* method,
                                                                 const ReplyFunction& reply,
                                                                 const Arguments&... arguments) {
    if (reply == nullptr) return noReplyFunction();
    std::tuple<Results...> results{};
    const CallStatus outcome = mLink.call(
        method, [&](sdbus::MethodCall& message) { writeAll(message, arguments...); },
        [&](sdbus::MethodReply& message) {
            std::apply([&](auto&... each) { readAll(message, each...); }, results);
        });
    if (outcome.kind != CallStatus::OK) return outcome.toStatus();
    std::apply(reply, results);
    return Void();
}

template <typename... Arguments>
android::hardware::Return<int32_t> RemoteGraphicBufferProducer::askStatus(const char* method,
                                                                          const Arguments&... arguments) {
    int32_t status = 0;
    const std::function<void(int32_t)> keep = [&](int32_t told) { status = told; };
    const Return<void> outcome = ask<int32_t>(method, keep, arguments...);
    if (!outcome.isOk()) return failureOf(outcome);
    return status;
}

android::hardware::Return<void> RemoteGraphicBufferProducer::requestBuffer(int32_t slot,
                                                                           requestBuffer_cb _hidl_cb) {
    return ask<int32_t, AnwBuffer>(bus::kRequestBuffer, _hidl_cb, slot);
}

android::hardware::Return<int32_t> RemoteGraphicBufferProducer::setMaxDequeuedBufferCount(
    int32_t maxDequeuedBuffers) {
    return askStatus(bus::kSetMaxDequeuedBufferCount, maxDequeuedBuffers);
}

android::hardware::Return<int32_t> RemoteGraphicBufferProducer::setAsyncMode(bool async) {
    return askStatus(bus::kSetAsyncMode, async);
}

android::hardware::Return<void> RemoteGraphicBufferProducer::dequeueBuffer(uint32_t width, uint32_t height,
                                                                           PixelFormat format, uint32_t usage,
                                                                           bool /*getFrameTimestamps*/,
                                                                           dequeueBuffer_cb _hidl_cb) {
    if (_hidl_cb == nullptr) return noReplyFunction();
    const std::function<void(int32_t, int32_t, const hidl_handle&)> reply =
        [&](int32_t status, int32_t slot, const hidl_handle& fence) { _hidl_cb(status, slot, fence, {}); };
    return ask<int32_t, int32_t, hidl_handle>(bus::kDequeueBuffer, reply, width, height,
                                              static_cast<int32_t>(format), usage);
}

android::hardware::Return<void> RemoteGraphicBufferProducer::queueBuffer(int32_t slot,
                                                                         const QueueBufferInput& input,
                                                                         queueBuffer_cb _hidl_cb) {
    return ask<int32_t, QueueBufferOutput>(bus::kQueueBuffer, _hidl_cb, slot, input);
}

android::hardware::Return<int32_t> RemoteGraphicBufferProducer::cancelBuffer(int32_t slot,
                                                                             const hidl_handle& fence) {
    return askStatus(bus::kCancelBuffer, slot, fence);
}

android::hardware::Return<void> RemoteGraphicBufferProducer::query(int32_t what, query_cb _hidl_cb) {
    return ask<int32_t, int32_t>(bus::kQuery, _hidl_cb, what);
}

android::hardware::Return<void> RemoteGraphicBufferProducer::connect(const sp<IProducerListener>& listener,
                                                                     int32_t api,
                                                                     bool producerControlledByApp,
                                                                     connect_cb _hidl_cb) {
    if (listener != nullptr) return unknownOperation();
    return ask<int32_t, QueueBufferOutput>(bus::kConnect, _hidl_cb, api, producerControlledByApp);
}

android::hardware::Return<int32_t> RemoteGraphicBufferProducer::disconnect(int32_t api, DisconnectMode mode) {
    return askStatus(bus::kDisconnect, api, static_cast<int32_t>(mode));
}

android::hardware::Return<int32_t> RemoteGraphicBufferProducer::allowAllocation(bool allow) {
    return askStatus(bus::kAllowAllocation, allow);
}

android::hardware::Return<int32_t> RemoteGraphicBufferProducer::setGenerationNumber(
    uint32_t generationNumber) {
    return askStatus(bus::kSetGenerationNumber, generationNumber);
}

android::hardware::Return<void> RemoteGraphicBufferProducer::getConsumerName(getConsumerName_cb _hidl_cb) {
    return ask<std::string>(bus::kGetConsumerName, _hidl_cb);
}

android::hardware::Return<int32_t> RemoteGraphicBufferProducer::setDequeueTimeout(int64_t timeoutNs) {
    return askStatus(bus::kSetDequeueTimeout, timeoutNs);
}

android::hardware::Return<void> RemoteGraphicBufferProducer::getUniqueId(getUniqueId_cb _hidl_cb) {
    return ask<int32_t, uint64_t>(bus::kGetUniqueId, _hidl_cb);
}

}  // namespace vel::dbus_transport
