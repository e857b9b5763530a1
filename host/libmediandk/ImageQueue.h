#pragma once

#include <gui/BufferItem.h>
#include <gui/BufferItemConsumer.h>
#include <media/NdkImage.h>

#include <memory>
#include <mutex>
#include <set>

/**
 * What a reader and its images share; it lives until the reader and the last image are gone. The images'
 * members are guarded by mutex too.
 */
struct ImageQueue {
    ImageQueue(const android::sp<android::BufferItemConsumer>& consumer, int32_t format, uint64_t usage,
               int maxImages)
        : consumer(consumer), format(format), usage(usage), maxImages(maxImages) {}

    /** Unlocks the image's buffer and gives it back; a closed image is left alone. */
    void closeLocked(AImage* image);

    const android::sp<android::BufferItemConsumer> consumer;
    const int32_t format;  // AIMAGE_FORMAT_*, the same numbers as the queue's formats
    const uint64_t usage;
    const int maxImages;

    std::mutex mutex;
    bool isOpen = true;          // until the reader is deleted
    int usedPlaces = 0;          // of maxImages
    std::set<AImage*> acquired;  // the images that are not closed
};

struct AImage {
    const std::shared_ptr<ImageQueue> queue;
    android::BufferItem item;
    bool isClosed = false;
    uint8_t* data = nullptr;  // set while the buffer is locked
};
