#include <android/hardware_buffer.h>
#include <errno.h>
#include <ui/Fence.h>
#include <ui/GraphicBuffer.h>

using android::Fence;
using android::GraphicBuffer;
using android::Rect;
using android::sp;

int AHardwareBuffer_allocate(const AHardwareBuffer_Desc* desc, AHardwareBuffer** outBuffer) {
    if (desc == nullptr || outBuffer == nullptr || desc->rfu0 != 0 || desc->rfu1 != 0) return -EINVAL;
    if (desc->width == 0 || desc->height == 0 || desc->layers == 0) return -EINVAL;
    const sp<GraphicBuffer> buffer(new GraphicBuffer(desc->width, desc->height,
                                                     static_cast<android::PixelFormat>(desc->format),
                                                     desc->layers, desc->usage, "AHardwareBuffer"));
    if (buffer->initCheck() != android::NO_ERROR) return buffer->initCheck();
    *outBuffer = buffer->toAHardwareBuffer();
    AHardwareBuffer_acquire(*outBuffer);
    return 0;
}

void AHardwareBuffer_acquire(AHardwareBuffer* buffer) {
    GraphicBuffer::fromAHardwareBuffer(buffer)->incStrong(reinterpret_cast<void*>(AHardwareBuffer_acquire));
}

void AHardwareBuffer_release(AHardwareBuffer* buffer) {
    GraphicBuffer::fromAHardwareBuffer(buffer)->decStrong(reinterpret_cast<void*>(AHardwareBuffer_acquire));
}

void AHardwareBuffer_describe(const AHardwareBuffer* buffer, AHardwareBuffer_Desc* outDesc) {
    const GraphicBuffer* described = GraphicBuffer::fromAHardwareBuffer(buffer);
    if (described == nullptr || outDesc == nullptr) return;
    *outDesc = {};
    outDesc->width = described->getWidth();
    outDesc->height = described->getHeight();
    outDesc->layers = described->getLayerCount();
    outDesc->format = static_cast<uint32_t>(described->getPixelFormat());
    outDesc->usage = described->getUsage();
    outDesc->stride = described->getStride();
}

int AHardwareBuffer_lock(AHardwareBuffer* buffer, uint64_t usage, int32_t fence, const ARect* rect,
                         void** outVirtualAddress) {
    const sp<Fence> owned(new Fence(fence));
    if (buffer == nullptr || outVirtualAddress == nullptr) return -EINVAL;
    if (usage &
        ~static_cast<uint64_t>(AHARDWAREBUFFER_USAGE_CPU_READ_MASK | AHARDWAREBUFFER_USAGE_CPU_WRITE_MASK))
        return -EINVAL;
    GraphicBuffer* locked = GraphicBuffer::fromAHardwareBuffer(buffer);
    if (locked->getLayerCount() > 1) return android::INVALID_OPERATION;
    const int waited = owned->waitForever("AHardwareBuffer_lock");
    if (waited != 0) return waited;
    const Rect locks =
        rect != nullptr ? Rect(rect->left, rect->top, rect->right, rect->bottom) : locked->getBounds();
    return locked->lock(static_cast<uint32_t>(usage), locks, outVirtualAddress);
}

int AHardwareBuffer_unlock(AHardwareBuffer* buffer, int32_t* fence) {
    if (buffer == nullptr) return -EINVAL;
    if (fence != nullptr) *fence = -1;
    return GraphicBuffer::fromAHardwareBuffer(buffer)->unlock();
}
