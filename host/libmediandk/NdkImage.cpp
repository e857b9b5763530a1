#include <android/log.h>
#include <media/NdkImage.h>
#include <stdlib.h>

#include "ImageQueue.h"

using android::Fence;
using android::GraphicBuffer;

namespace {

constexpr char kTag[] = "NdkImage";

// Locks the buffer at the first call, for the rest of the image's life.
bool lockForReading(AImage* image) {
    if (image->data != nullptr) return true;
    void* address = nullptr;
    if (image->item.mGraphicBuffer->lock(GraphicBuffer::USAGE_SW_READ_OFTEN, &address) != android::NO_ERROR)
        return false;
    image->data = static_cast<uint8_t*>(address);
    return true;
}

}  // namespace

void ImageQueue::closeLocked(AImage* image) {
    if (image->isClosed) return;
    if (image->data != nullptr) image->item.mGraphicBuffer->unlock();
    image->data = nullptr;
    consumer->releaseBuffer(image->item, Fence::NO_FENCE);
    image->item = android::BufferItem();
    image->isClosed = true;
    acquired.erase(image);
    usedPlaces--;
}

void AImage_delete(AImage* image) {
    if (image == nullptr) return;
    {
        std::lock_guard<std::mutex> lock(image->queue->mutex);
        image->queue->closeLocked(image);
    }
    delete image;
}

media_status_t AImage_getPlaneData(const AImage* image, int planeIdx, uint8_t** data, int* dataLength) {
    if (image == nullptr || data == nullptr || dataLength == nullptr) return AMEDIA_ERROR_INVALID_PARAMETER;
    const ImageQueue& queue = *image->queue;
    std::lock_guard<std::mutex> lock(image->queue->mutex);
    if (!queue.isOpen) {
        __android_log_print(ANDROID_LOG_FATAL, kTag,
                            "AImage_getPlaneData: the reader of image %p was deleted",
                            static_cast<const void*>(image));
        abort();
    }
    if (!(queue.usage & AHARDWAREBUFFER_USAGE_CPU_READ_OFTEN)) return AMEDIA_IMGREADER_CANNOT_LOCK_IMAGE;
    if (!lockForReading(const_cast<AImage*>(image))) return AMEDIA_IMGREADER_CANNOT_LOCK_IMAGE;
    if (planeIdx != 0)
        return AMEDIA_ERROR_INVALID_PARAMETER;  // a PRIVATE image, which has none, cannot be locked

    const GraphicBuffer& buffer = *image->item.mGraphicBuffer;
    if (buffer.getHeight() != 1) return AMEDIA_ERROR_UNKNOWN;
    *data = image->data;
    *dataLength = static_cast<int>(buffer.getWidth());
    return AMEDIA_OK;
}

media_status_t AImage_getHardwareBuffer(const AImage* image, AHardwareBuffer** buffer) {
    if (image == nullptr || buffer == nullptr) return AMEDIA_ERROR_INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(image->queue->mutex);
    if (image->isClosed) return AMEDIA_ERROR_INVALID_OBJECT;
    *buffer = image->item.mGraphicBuffer->toAHardwareBuffer();
    return AMEDIA_OK;
}

media_status_t AImage_getTimestamp(const AImage* image, int64_t* timestampNs) {
    if (image == nullptr || timestampNs == nullptr) return AMEDIA_ERROR_INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(image->queue->mutex);
    *timestampNs = -1;
    if (image->isClosed) return AMEDIA_ERROR_INVALID_OBJECT;
    *timestampNs = image->item.mTimestamp;
    return AMEDIA_OK;
}
