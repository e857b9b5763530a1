#include "FrameBuffer.h"

#include <sys/stat.h>

namespace vel::sim {

using android::GraphicBuffer;

MappedBuffer::MappedBuffer(const android::sp<GraphicBuffer>& buffer, uint32_t usage) : mBuffer(buffer) {
    void* data = nullptr;
    if (mBuffer->lock(usage, &data) == android::NO_ERROR) mData = static_cast<uint8_t*>(data);
}

MappedBuffer::~MappedBuffer() {
    if (mData != nullptr) mBuffer->unlock();
}

uint64_t memoryIdentity(const GraphicBuffer& buffer) {
    struct stat status {};
    if (buffer.handle == nullptr || fstat(buffer.handle->data[0], &status) != 0) return 0;
    return status.st_ino;
}

}  // namespace vel::sim
