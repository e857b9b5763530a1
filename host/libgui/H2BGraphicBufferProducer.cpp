#include <gui/Absent.h>
#include <gui/bufferqueue/1.0/H2BGraphicBufferProducer.h>

#include "HidlConversions.h"

namespace android {
namespace hardware {
namespace graphics {
namespace bufferqueue {
namespace V1_0 {
namespace utils {

using hidl_conversions::bufferFromHidl;
using hidl_conversions::fenceFromHidl;
using hidl_conversions::outputFromHidl;
using hidl_conversions::toHidl;
using media::V1_0::AnwBuffer;

namespace {

status_t transportStatus(const details::return_status& result) {
    if (result.isDeadObject()) return DEAD_OBJECT;
    return result.isOk() ? NO_ERROR : UNKNOWN_ERROR;
}

// The peer's status, or what became of the transport.
status_t answerOf(const Return<int32_t>& result) {
    const status_t transport = transportStatus(result);
    return transport == NO_ERROR ? static_cast<status_t>(result) : transport;
}

status_t answerOf(const Return<void>& result, status_t replied) {
    const status_t transport = transportStatus(result);
    return transport == NO_ERROR ? replied : transport;
}

// What cannot be converted spoils a plain success, but no other answer of the peer.
status_t unlessConverted(bool converted, status_t status) {
    return converted || status != NO_ERROR ? status : BAD_VALUE;
}

}  // namespace

H2BGraphicBufferProducer::H2BGraphicBufferProducer(sp<HGraphicBufferProducer> const& base) : mBase(base) {}

status_t H2BGraphicBufferProducer::requestBuffer(int slot, sp<GraphicBuffer>* buf) {
    *buf = new GraphicBuffer;
    status_t replied = UNKNOWN_ERROR;
    const Return<void> result = mBase->requestBuffer(slot, [&](int32_t status, const AnwBuffer& buffer) {
        const sp<GraphicBuffer> imported = bufferFromHidl(buffer);
        replied = unlessConverted(imported != nullptr, status);
        if (imported != nullptr) *buf = imported;
    });
    return answerOf(result, replied);
}

status_t H2BGraphicBufferProducer::setMaxDequeuedBufferCount(int maxDequeuedBuffers) {
    return answerOf(mBase->setMaxDequeuedBufferCount(maxDequeuedBuffers));
}

status_t H2BGraphicBufferProducer::setAsyncMode(bool async) {
    return answerOf(mBase->setAsyncMode(async));
}

status_t H2BGraphicBufferProducer::dequeueBuffer(int* slot, sp<Fence>* fence, uint32_t w, uint32_t h,
                                                 android::PixelFormat format, uint64_t usage,
                                                 uint64_t* outBufferAge,
                                                 android::FrameEventHistoryDelta* outTimestamps) {
    *fence = new Fence;
    if (outBufferAge != nullptr) *outBufferAge = 0;
    status_t replied = UNKNOWN_ERROR;
    const Return<void> result =
        mBase->dequeueBuffer(w, h, static_cast<common::V1_0::PixelFormat>(format),
                             static_cast<uint32_t>(usage), outTimestamps != nullptr,
                             [&](int32_t status, int32_t repliedSlot, const hidl_handle& repliedFence,
                                 const HGraphicBufferProducer::FrameEventHistoryDelta&) {
                                 const sp<Fence> converted = fenceFromHidl(repliedFence);
                                 replied = unlessConverted(converted != nullptr, status);
                                 *slot = repliedSlot;
                                 if (converted != nullptr) *fence = converted;
                             });
    return answerOf(result, replied);
}

status_t H2BGraphicBufferProducer::queueBuffer(int slot, const QueueBufferInput& input,
                                               QueueBufferOutput* output) {
    if (input.fence == nullptr) abortAbsent("queueBuffer with a null fence");
    status_t replied = UNKNOWN_ERROR;
    const Return<void> result = mBase->queueBuffer(
        slot, toHidl(input), [&](int32_t status, const HGraphicBufferProducer::QueueBufferOutput& told) {
            replied = status;
            outputFromHidl(told, output);
        });
    return answerOf(result, replied);
}

status_t H2BGraphicBufferProducer::cancelBuffer(int slot, const sp<Fence>& fence) {
    if (fence == nullptr) return BAD_VALUE;
    return answerOf(mBase->cancelBuffer(slot, toHidl(fence)));
}

int H2BGraphicBufferProducer::query(int what, int* value) {
    status_t replied = UNKNOWN_ERROR;
    const Return<void> result = mBase->query(what, [&](int32_t status, int32_t told) {
        replied = status;
        *value = told;
    });
    return answerOf(result, replied);
}

status_t H2BGraphicBufferProducer::connect(const sp<android::IProducerListener>& listener, int api,
                                           bool producerControlledByApp, QueueBufferOutput* output) {
    if (listener != nullptr) abortAbsent("a producer listener through HIDL");
    if (output == nullptr) return BAD_VALUE;
    status_t replied = UNKNOWN_ERROR;
    const Return<void> result =
        mBase->connect(nullptr, api, producerControlledByApp,
                       [&](int32_t status, const HGraphicBufferProducer::QueueBufferOutput& told) {
                           replied = status;
                           outputFromHidl(told, output);
                       });
    return answerOf(result, replied);
}

status_t H2BGraphicBufferProducer::disconnect(int api, DisconnectMode mode) {
    return answerOf(mBase->disconnect(api, static_cast<HGraphicBufferProducer::DisconnectMode>(mode)));
}

String8 H2BGraphicBufferProducer::getConsumerName() const {
    String8 name;
    const Return<void> result =
        mBase->getConsumerName([&](const hidl_string& told) { name = String8(told.c_str()); });
    return result.isOk() ? name : String8("TransactFailed");
}

status_t H2BGraphicBufferProducer::setDequeueTimeout(nsecs_t timeout) {
    return answerOf(mBase->setDequeueTimeout(timeout));
}

status_t H2BGraphicBufferProducer::getUniqueId(uint64_t* outId) const {
    status_t replied = UNKNOWN_ERROR;
    const Return<void> result = mBase->getUniqueId([&](int32_t status, uint64_t told) {
        replied = status;
        *outId = told;
    });
    return answerOf(result, replied);
}

}  // namespace utils
}  // namespace V1_0
}  // namespace bufferqueue
}  // namespace graphics
}  // namespace hardware
}  // namespace android
