#include <android/log.h>
#include <gui/BufferQueue.h>
#include <gui/Surface.h>
#include <media/NdkImageReader.h>
#include <stdlib.h>

#include "ImageQueue.h"

using android::BufferItem;
using android::BufferItemConsumer;
using android::BufferQueue;
using android::Fence;
using android::sp;

struct AImageReader {
    const std::shared_ptr<ImageQueue> queue;
    const sp<android::Surface> surface;
};

namespace {

constexpr char kTag[] = "NdkImageReader";

bool isKnownFormat(int32_t format) {
    switch (format) {
        case AIMAGE_FORMAT_RGBA_8888:
        case AIMAGE_FORMAT_RGBX_8888:
        case AIMAGE_FORMAT_RGB_888:
        case AIMAGE_FORMAT_RGB_565:
        case AIMAGE_FORMAT_RGBA_FP16:
        case AIMAGE_FORMAT_YUV_420_888:
        case AIMAGE_FORMAT_JPEG:
        case AIMAGE_FORMAT_RAW16:
        case AIMAGE_FORMAT_RAW_PRIVATE:
        case AIMAGE_FORMAT_RAW10:
        case AIMAGE_FORMAT_RAW12:
        case AIMAGE_FORMAT_DEPTH16:
        case AIMAGE_FORMAT_DEPTH_POINT_CLOUD:
        case AIMAGE_FORMAT_PRIVATE:
            return true;
        default:
            return false;
    }
}

void abortUnlessPresent(int32_t format) {
    if (format == AIMAGE_FORMAT_RAW_PRIVATE || format == AIMAGE_FORMAT_PRIVATE) return;
    __android_log_print(ANDROID_LOG_FATAL, kTag, "Format %#x is absent from the workstation's platform",
                        static_cast<unsigned>(format));
    abort();
}

// Acquires the oldest frame and refuses what a reader cannot show.
media_status_t acquireFrameLocked(ImageQueue& queue, BufferItem* item) {
    if (queue.usedPlaces >= queue.maxImages) return AMEDIA_IMGREADER_MAX_IMAGES_ACQUIRED;
    const android::status_t status = queue.consumer->acquireBuffer(item, 0);
    if (status == BufferQueue::NO_BUFFER_AVAILABLE) return AMEDIA_IMGREADER_NO_BUFFER_AVAILABLE;
    if (status == android::INVALID_OPERATION) return AMEDIA_IMGREADER_MAX_IMAGES_ACQUIRED;
    if (status != android::NO_ERROR) return AMEDIA_ERROR_UNKNOWN;

    queue.usedPlaces++;
    const bool isOpaque = queue.format == AIMAGE_FORMAT_PRIVATE;
    if (!isOpaque && (item->mCrop.left != 0 || item->mCrop.top != 0)) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "Crop starts at %d, %d: the frame is lost",
                            item->mCrop.left, item->mCrop.top);
        return AMEDIA_ERROR_UNKNOWN;
    }
    if (!isOpaque && item->mGraphicBuffer->getPixelFormat() != queue.format) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "Frame of format %#x in a reader of format %#x",
                            static_cast<unsigned>(item->mGraphicBuffer->getPixelFormat()),
                            static_cast<unsigned>(queue.format));
        queue.consumer->releaseBuffer(*item, Fence::NO_FENCE);
        queue.usedPlaces--;
        return AMEDIA_ERROR_UNKNOWN;
    }
    return AMEDIA_OK;
}

media_status_t acquireImageLocked(const std::shared_ptr<ImageQueue>& queue, AImage** image) {
    *image = nullptr;
    BufferItem item;
    const media_status_t status = acquireFrameLocked(*queue, &item);
    if (status != AMEDIA_OK) return status;
    *image = new AImage{queue, std::move(item)};
    queue->acquired.insert(*image);
    return AMEDIA_OK;
}

}  // namespace

media_status_t AImageReader_new(int32_t width, int32_t height, int32_t format, int32_t maxImages,
                                AImageReader** reader) {
    return AImageReader_newWithUsage(width, height, format, AHARDWAREBUFFER_USAGE_CPU_READ_OFTEN, maxImages,
                                     reader);
}

media_status_t AImageReader_newWithUsage(int32_t width, int32_t height, int32_t format, uint64_t usage,
                                         int32_t maxImages, AImageReader** reader) {
    if (width < 1 || height < 1 || maxImages < 1 || reader == nullptr) return AMEDIA_ERROR_INVALID_PARAMETER;
    if (maxImages > BufferQueue::NUM_BUFFER_SLOTS || !isKnownFormat(format))
        return AMEDIA_ERROR_INVALID_PARAMETER;
    if (format == AIMAGE_FORMAT_PRIVATE && (usage & AHARDWAREBUFFER_USAGE_CPU_READ_OFTEN))
        return AMEDIA_ERROR_INVALID_PARAMETER;
    abortUnlessPresent(format);

    sp<android::IGraphicBufferProducer> producer;
    sp<android::IGraphicBufferConsumer> consumerEnd;
    BufferQueue::createBufferQueue(&producer, &consumerEnd);
    const sp<BufferItemConsumer> consumer(new BufferItemConsumer(consumerEnd, usage, maxImages, true));
    consumer->setName(android::String8("ImageReader"));
    consumer->setDefaultBufferSize(static_cast<uint32_t>(width), static_cast<uint32_t>(height));
    consumer->setDefaultBufferFormat(format);
    if (format == AIMAGE_FORMAT_RAW_PRIVATE) consumer->setDefaultBufferDataSpace(HAL_DATASPACE_ARBITRARY);

    *reader = new AImageReader{std::make_shared<ImageQueue>(consumer, format, usage, maxImages),
                               new android::Surface(producer, true)};
    return AMEDIA_OK;
}

void AImageReader_delete(AImageReader* reader) {
    if (reader == nullptr) return;
    {
        ImageQueue& queue = *reader->queue;
        std::lock_guard<std::mutex> lock(queue.mutex);
        while (!queue.acquired.empty())
            queue.closeLocked(*queue.acquired.begin());
        queue.isOpen = false;
        queue.consumer->abandon();
    }
    delete reader;
}

media_status_t AImageReader_getWindow(AImageReader* reader, ANativeWindow** window) {
    if (reader == nullptr || window == nullptr) return AMEDIA_ERROR_INVALID_PARAMETER;
    *window = reader->surface.get();
    return AMEDIA_OK;
}

media_status_t AImageReader_acquireNextImage(AImageReader* reader, AImage** image) {
    if (reader == nullptr || image == nullptr) return AMEDIA_ERROR_INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(reader->queue->mutex);
    return acquireImageLocked(reader->queue, image);
}

media_status_t AImageReader_acquireLatestImage(AImageReader* reader, AImage** image) {
    if (reader == nullptr || image == nullptr) return AMEDIA_ERROR_INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(reader->queue->mutex);
    const media_status_t first = acquireImageLocked(reader->queue, image);
    if (first != AMEDIA_OK) return first;
    for (AImage* next; acquireImageLocked(reader->queue, &next) == AMEDIA_OK; *image = next) {
        reader->queue->closeLocked(*image);
        delete *image;
    }
    return AMEDIA_OK;
}
