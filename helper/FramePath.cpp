#include <gui/Surface.h>
#include <hardware/gralloc.h>
#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>
#include <media/NdkImageReader.h>

#include "HelperLog.h"
#include "ProducerSlots.h"
#include "VelChiDesktopHelper.h"

// Last: the second leaves a macro and many names behind, so no other file includes it.
#include <gui/bufferqueue/1.0/H2BGraphicBufferProducer.h>
#include <gui/bufferqueue/1.0/WGraphicBufferProducer.h>

using android::GraphicBuffer;
using android::sp;
using android::hardware::graphics::bufferqueue::V1_0::utils::H2BGraphicBufferProducer;

namespace {

constexpr int32_t kNoSlot = -1;

constexpr producer_slots::Log kLog = {
    /*slotsExhausted=*/[] { VEL_LOGE("request dequeue failed, max slots reached"); },
    /*requestFailed=*/[] { VEL_LOGE("request buffer failed"); },
    /*reallocated=*/[](int slot) { VEL_LOGD("Got re-alloc request for slot %d", slot); },
    /*dequeueFailed=*/[](android::status_t status) { VEL_LOGE("request dequeue failed with %d", status); },
    /*fenceLate=*/[] { VEL_LOGW("Fence hasn't been signaled yet"); },
    /*queueFailed=*/[] { VEL_LOGE("queue buffer failed"); },
    /*disconnectFailed=*/
    [](android::status_t status) { VEL_LOGE("Unable to disconnect producer, %d", status); },
};

}  // namespace

bool VelChiDesktopHelper::connectProducer(uint32_t width, uint32_t height, uint32_t format) {
    std::lock_guard<std::mutex> lock(mServiceLock);
    if (!connectToServiceLocked()) {
        VEL_LOGE("Service is not available");
        return false;
    }
    mAppWidth = width;
    mAppHeight = height;
    mAppFormat = format;
    if (mAppProducer != nullptr) return true;

    const sp<ICameraDesktop> service = serviceProxy();
    const sp<HidlProducer> surface = service->getSurface(ClientType::CLIENT_APP).withDefault(nullptr);
    if (surface == nullptr) return false;

    mAppProducer = new H2BGraphicBufferProducer(surface);
    VEL_LOGD("Got producer %p", static_cast<void*>(mAppProducer.get()));
    producer_slots::connect(*mAppProducer);
    return true;
}

void VelChiDesktopHelper::disconnectProducer() {
    producer_slots::disconnect(mAppProducer, kLog);
}

sp<GraphicBuffer> VelChiDesktopHelper::getFrameToFill() {
    if (mAppProducer == nullptr) {
        if (mAppWidth != 0) connectProducer(mAppWidth, mAppHeight, mAppFormat);
        return nullptr;
    }
    sp<GraphicBuffer> buffer;
    const producer_slots::BufferShape shape = {mAppWidth, mAppHeight, mAppFormat,
                                               GRALLOC_USAGE_SW_WRITE_RARELY};
    const producer_slots::Dequeued outcome =
        producer_slots::dequeue(*mAppProducer, shape, mAppBuffers, kLog, mAppDequeuedSlot, buffer);
    if (outcome == producer_slots::Dequeued::QUEUE_FAILED) {
        disconnectProducer();
        connectProducer(mAppWidth, mAppHeight, mAppFormat);
    }
    return buffer;
}

void VelChiDesktopHelper::queueFilledFrame(int64_t timestamp) {
    if (mAppDequeuedSlot == kNoSlot) return;
    producer_slots::queue(mAppProducer, mAppDequeuedSlot, mAppWidth, mAppHeight, timestamp, kLog);
    mAppDequeuedSlot = kNoSlot;
}

sp<VelChiDesktopHelper::HidlProducer> VelChiDesktopHelper::getIGraphicBufferProducer(AImageReader* reader) {
    if (reader == nullptr) {
        VEL_LOGE("%s failed: invalid AImageReader", "getIGraphicBufferProducer");
        return nullptr;
    }
    ANativeWindow* window = nullptr;
    if (AImageReader_getWindow(reader, &window) != AMEDIA_OK) {
        VEL_LOGE("Failed to get ANativeWindow");
        return nullptr;
    }
    const sp<android::Surface> surface = static_cast<android::Surface*>(window);
    sp<android::IGraphicBufferProducer> producer;
    if (surface != nullptr) producer = surface->getIGraphicBufferProducer();
    return new android::TWGraphicBufferProducer<HidlProducer>(producer);
}
