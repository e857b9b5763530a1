#include <gui/Absent.h>
#include <gui/bufferqueue/1.0/WGraphicBufferProducer.h>

#include "HidlConversions.h"

namespace android {
namespace hidl_producer {

using hidl_conversions::fenceFromHidl;
using hidl_conversions::inputFromHidl;
using hidl_conversions::toHidl;

Return<void> requestBuffer(BGraphicBufferProducer& base, int32_t slot,
                           const HGraphicBufferProducer::requestBuffer_cb& reply) {
    sp<GraphicBuffer> buffer;
    const status_t status = base.requestBuffer(slot, &buffer);
    reply(status, toHidl(buffer));
    return Void();
}

Return<void> dequeueBuffer(BGraphicBufferProducer& base, uint32_t width, uint32_t height, int32_t format,
                           uint32_t usage, const HGraphicBufferProducer::dequeueBuffer_cb& reply) {
    int slot = 0;
    sp<Fence> fence;
    const status_t status = base.dequeueBuffer(&slot, &fence, width, height, format, usage, nullptr, nullptr);
    reply(status, slot, toHidl(fence), {});
    return Void();
}

Return<void> queueBuffer(BGraphicBufferProducer& base, int32_t slot,
                         const HGraphicBufferProducer::QueueBufferInput& input,
                         const HGraphicBufferProducer::queueBuffer_cb& reply) {
    BGraphicBufferProducer::QueueBufferOutput output;
    const BGraphicBufferProducer::QueueBufferInput converted = inputFromHidl(input);
    const status_t status =
        converted.fence != nullptr ? base.queueBuffer(slot, converted, &output) : BAD_VALUE;
    reply(status, toHidl(output));
    return Void();
}

Return<int32_t> cancelBuffer(BGraphicBufferProducer& base, int32_t slot, const hidl_handle& fence) {
    const sp<Fence> converted = fenceFromHidl(fence);
    return converted != nullptr ? base.cancelBuffer(slot, converted) : BAD_VALUE;
}

Return<void> query(BGraphicBufferProducer& base, int32_t what,
                   const HGraphicBufferProducer::query_cb& reply) {
    int value = 0;
    const int result = base.query(what, &value);
    reply(result, value);
    return Void();
}

Return<void> connect(BGraphicBufferProducer& base, const sp<HProducerListener>& listener, int32_t api,
                     bool producerControlledByApp, const HGraphicBufferProducer::connect_cb& reply) {
    if (listener != nullptr) abortAbsent("a producer listener through HIDL");
    BGraphicBufferProducer::QueueBufferOutput output;
    const status_t status = base.connect(nullptr, api, producerControlledByApp, &output);
    reply(status, toHidl(output));
    return Void();
}

Return<int32_t> disconnect(BGraphicBufferProducer& base, int32_t api,
                           HGraphicBufferProducer::DisconnectMode mode) {
    return base.disconnect(api, static_cast<BGraphicBufferProducer::DisconnectMode>(mode));
}

Return<void> getConsumerName(BGraphicBufferProducer& base,
                             const HGraphicBufferProducer::getConsumerName_cb& reply) {
    reply(hidl_string(base.getConsumerName().string()));
    return Void();
}

Return<void> getUniqueId(BGraphicBufferProducer& base, const HGraphicBufferProducer::getUniqueId_cb& reply) {
    uint64_t id = 0;
    const status_t status = base.getUniqueId(&id);
    reply(status, id);
    return Void();
}

}  // namespace hidl_producer
}  // namespace android
