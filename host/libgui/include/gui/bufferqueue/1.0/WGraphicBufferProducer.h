#pragma once

#include <android/hardware/graphics/bufferqueue/1.0/IGraphicBufferProducer.h>
#include <gui/IGraphicBufferProducer.h>
#include <gui/IProducerListener.h>

#include <type_traits>

// The platform's header leaves this behind too: include it after any header with a LOG of its own.
#ifndef LOG
struct LOG_dummy {
    template <typename T>
    LOG_dummy& operator<<(const T&) {
        return *this;
    }
};
#define LOG(x) LOG_dummy()
#endif

namespace android {

using ::android::hardware::hidl_handle;
using ::android::hardware::hidl_string;
using ::android::hardware::Return;
using ::android::hardware::Void;
using ::android::hardware::media::V1_0::AnwBuffer;
typedef ::android::hardware::graphics::bufferqueue::V1_0::IGraphicBufferProducer HGraphicBufferProducer;
typedef ::android::hardware::graphics::bufferqueue::V1_0::IProducerListener HProducerListener;
typedef ::android::IGraphicBufferProducer BGraphicBufferProducer;

/**
 * What the adapter below does, for a producer that must not be null. Each runs on the caller's thread, passes
 * the producer's status on and calls the reply function once. A null fence or buffer becomes an empty handle,
 * a fence that is not one descriptor is answered with BAD_VALUE.
 */
namespace hidl_producer {
Return<void> requestBuffer(BGraphicBufferProducer& base, int32_t slot,
                           const HGraphicBufferProducer::requestBuffer_cb& reply);
Return<void> dequeueBuffer(BGraphicBufferProducer& base, uint32_t width, uint32_t height, int32_t format,
                           uint32_t usage, const HGraphicBufferProducer::dequeueBuffer_cb& reply);
Return<void> queueBuffer(BGraphicBufferProducer& base, int32_t slot,
                         const HGraphicBufferProducer::QueueBufferInput& input,
                         const HGraphicBufferProducer::queueBuffer_cb& reply);
Return<int32_t> cancelBuffer(BGraphicBufferProducer& base, int32_t slot, const hidl_handle& fence);
Return<void> query(BGraphicBufferProducer& base, int32_t what, const HGraphicBufferProducer::query_cb& reply);
/** A listener other than null ends the process: there is no adapter for it here. */
Return<void> connect(BGraphicBufferProducer& base, const sp<HProducerListener>& listener, int32_t api,
                     bool producerControlledByApp, const HGraphicBufferProducer::connect_cb& reply);
Return<int32_t> disconnect(BGraphicBufferProducer& base, int32_t api,
                           HGraphicBufferProducer::DisconnectMode mode);
Return<void> getConsumerName(BGraphicBufferProducer& base,
                             const HGraphicBufferProducer::getConsumerName_cb& reply);
Return<void> getUniqueId(BGraphicBufferProducer& base, const HGraphicBufferProducer::getUniqueId_cb& reply);
}  // namespace hidl_producer

/**
 * A platform producer presented as a HIDL object (BASE is HGraphicBufferProducer or derived from it). Holds
 * the producer strongly. A null producer is accepted and crashes at the first call.
 */
template <typename BASE,
          typename = typename std::enable_if<std::is_base_of<HGraphicBufferProducer, BASE>::value>::type>
struct TWGraphicBufferProducer : public BASE {
    TWGraphicBufferProducer(sp<BGraphicBufferProducer> const& base) : mBase(base) {}

    Return<void> requestBuffer(int32_t slot, HGraphicBufferProducer::requestBuffer_cb _hidl_cb) override {
        return hidl_producer::requestBuffer(*mBase, slot, _hidl_cb);
    }
    Return<int32_t> setMaxDequeuedBufferCount(int32_t maxDequeuedBuffers) override {
        return mBase->setMaxDequeuedBufferCount(maxDequeuedBuffers);
    }
    Return<int32_t> setAsyncMode(bool async) override { return mBase->setAsyncMode(async); }
    Return<void> dequeueBuffer(uint32_t width, uint32_t height,
                               ::android::hardware::graphics::common::V1_0::PixelFormat format,
                               uint32_t usage, bool /*getFrameTimestamps*/,
                               HGraphicBufferProducer::dequeueBuffer_cb _hidl_cb) override {
        return hidl_producer::dequeueBuffer(*mBase, width, height, static_cast<int32_t>(format), usage,
                                            _hidl_cb);
    }
    Return<void> queueBuffer(int32_t slot, const HGraphicBufferProducer::QueueBufferInput& input,
                             HGraphicBufferProducer::queueBuffer_cb _hidl_cb) override {
        return hidl_producer::queueBuffer(*mBase, slot, input, _hidl_cb);
    }
    Return<int32_t> cancelBuffer(int32_t slot, const hidl_handle& fence) override {
        return hidl_producer::cancelBuffer(*mBase, slot, fence);
    }
    Return<void> query(int32_t what, HGraphicBufferProducer::query_cb _hidl_cb) override {
        return hidl_producer::query(*mBase, what, _hidl_cb);
    }
    Return<void> connect(const sp<HProducerListener>& listener, int32_t api, bool producerControlledByApp,
                         HGraphicBufferProducer::connect_cb _hidl_cb) override {
        return hidl_producer::connect(*mBase, listener, api, producerControlledByApp, _hidl_cb);
    }
    Return<int32_t> disconnect(int32_t api, HGraphicBufferProducer::DisconnectMode mode) override {
        return hidl_producer::disconnect(*mBase, api, mode);
    }
    Return<void> getConsumerName(HGraphicBufferProducer::getConsumerName_cb _hidl_cb) override {
        return hidl_producer::getConsumerName(*mBase, _hidl_cb);
    }
    Return<int32_t> setDequeueTimeout(int64_t timeoutNs) override {
        return mBase->setDequeueTimeout(timeoutNs);
    }
    Return<void> getUniqueId(HGraphicBufferProducer::getUniqueId_cb _hidl_cb) override {
        return hidl_producer::getUniqueId(*mBase, _hidl_cb);
    }

  protected:
    sp<BGraphicBufferProducer> mBase;
};

}  // namespace android
