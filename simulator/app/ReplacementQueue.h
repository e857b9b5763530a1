#pragma once

#include <android/hardware/graphics/bufferqueue/1.0/IGraphicBufferProducer.h>
#include <gui/IGraphicBufferProducer.h>

#include <array>
#include <functional>

namespace vel::sim {

using HidlProducer = android::hardware::graphics::bufferqueue::V1_0::IGraphicBufferProducer;

/**
 * The way of replacements into the camera HAL's image reader. Used by one thread at a time; each call goes to
 * the HAL's process.
 */
class ReplacementQueue {
  public:
    /** Connects to the reader's input. */
    explicit ReplacementQueue(const android::sp<HidlProducer>& reader);
    /** Disconnects, which frees every buffer that was not queued. */
    ~ReplacementQueue();
    ReplacementQueue(const ReplacementQueue&) = delete;
    ReplacementQueue& operator=(const ReplacementQueue&) = delete;

    /**
     * Fills a buffer of one row of that many bytes and queues it. False when there is no buffer within a
     * quarter of a second, the HAL refuses, or it gives a slot or a buffer that was not asked for; status()
     * then tells why. A connection that was ended at the HAL's side is made anew.
     */
    bool send(uint32_t rowBytes, int64_t timestampNs,
              const std::function<void(const android::sp<android::GraphicBuffer>&)>& fill);

    android::status_t status() const { return mStatus; }

  private:
    void connect();
    android::sp<android::GraphicBuffer> dequeue(uint32_t rowBytes, int& slot);

    android::sp<android::IGraphicBufferProducer> mProducer;
    std::array<android::sp<android::GraphicBuffer>, android::BufferQueueDefs::NUM_BUFFER_SLOTS> mBuffers;
    android::status_t mStatus = android::NO_ERROR;
};

}  // namespace vel::sim
