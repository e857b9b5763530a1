#pragma once

#include <gui/BufferItemConsumer.h>
#include <gui/BufferQueue.h>
#include <gui/bufferqueue/1.0/WGraphicBufferProducer.h>
#include <hardware/gralloc.h>

/**
 * A buffer queue with a consumer that reads by processor and holds at most that many frames at a time. With
 * one frame the queue needs no more than the seven slots that a frame path of the library caches.
 */
struct ConsumerQueue {
    explicit ConsumerQueue(int maxAcquired = 1) {
        android::sp<android::IGraphicBufferConsumer> end;
        android::BufferQueue::createBufferQueue(&producer, &end);
        consumer = new android::BufferItemConsumer(end, GRALLOC_USAGE_SW_READ_OFTEN, maxAcquired);
        surface = new android::TWGraphicBufferProducer<android::HGraphicBufferProducer>(producer);
    }

    android::sp<android::IGraphicBufferProducer> producer;
    android::sp<android::BufferItemConsumer> consumer;
    android::sp<android::HGraphicBufferProducer> surface;  // the producer, as a service hands it out
};
