#pragma once

#include <ui/GraphicBuffer.h>

#include <cstdint>

namespace vel::sim {

/** A graphic buffer mapped for the CPU as long as this object lives. Holds the buffer. */
class MappedBuffer {
  public:
    /** usage: GraphicBuffer::USAGE_SW_*. */
    MappedBuffer(const android::sp<android::GraphicBuffer>& buffer, uint32_t usage);
    ~MappedBuffer();
    MappedBuffer(const MappedBuffer&) = delete;
    MappedBuffer& operator=(const MappedBuffer&) = delete;

    /** The first byte; null when the buffer cannot be mapped. */
    uint8_t* data() const { return mData; }

  private:
    const android::sp<android::GraphicBuffer> mBuffer;
    uint8_t* mData = nullptr;
};

/**
 * Names the memory behind a buffer: the same in every process that maps it, another for every other memory
 * that lives at the same time. 0 when there is none.
 */
uint64_t memoryIdentity(const android::GraphicBuffer& buffer);

}  // namespace vel::sim
