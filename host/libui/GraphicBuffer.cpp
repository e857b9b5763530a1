#include <fcntl.h>
#include <sys/mman.h>
#include <ui/GraphicBuffer.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>

#include "BufferMemory.h"

namespace android {

namespace {

// The process in the high half keeps ids of all processes apart.
uint64_t nextId() {
    static std::atomic<uint32_t> count{0};
    return static_cast<uint64_t>(getpid()) << 32 | count.fetch_add(1, std::memory_order_relaxed);
}

bool contains(const Rect& outer, const Rect& inner) {
    return inner.left >= outer.left && inner.top >= outer.top && inner.right <= outer.right &&
           inner.bottom <= outer.bottom;
}

// Every kind of CPU access that is asked for must have been allocated for.
bool allowsCpuAccess(uint64_t allocated, uint64_t asked) {
    for (const uint64_t mask : {GRALLOC_USAGE_SW_READ_MASK, GRALLOC_USAGE_SW_WRITE_MASK}) {
        if ((asked & mask) && !(allocated & mask)) return false;
    }
    return true;
}

native_handle_t* wrapDescriptor(base::unique_fd fd) {
    native_handle_t* handle = native_handle_create(1, 0);
    if (handle != nullptr) handle->data[0] = fd.release();
    return handle;
}

}  // namespace

GraphicBuffer* GraphicBuffer::fromAHardwareBuffer(AHardwareBuffer* buffer) {
    return reinterpret_cast<GraphicBuffer*>(buffer);
}

const GraphicBuffer* GraphicBuffer::fromAHardwareBuffer(const AHardwareBuffer* buffer) {
    return reinterpret_cast<const GraphicBuffer*>(buffer);
}

AHardwareBuffer* GraphicBuffer::toAHardwareBuffer() {
    return reinterpret_cast<AHardwareBuffer*>(this);
}

const AHardwareBuffer* GraphicBuffer::toAHardwareBuffer() const {
    return reinterpret_cast<const AHardwareBuffer*>(this);
}

GraphicBuffer::GraphicBuffer() : mId(nextId()) {}

GraphicBuffer::GraphicBuffer(uint32_t w, uint32_t h, PixelFormat format, uint32_t layerCount, uint64_t usage,
                             std::string requestorName)  // NOLINT(performance-unnecessary-value-param)
    : mId(nextId()) {
    mInitCheck = allocate(w, h, format, layerCount, usage, requestorName);
}

GraphicBuffer::~GraphicBuffer() {
    if (mMapping != nullptr) munmap(mMapping, mByteCount);
    if (handle == nullptr) return;
    native_handle_close(handle);
    native_handle_delete(const_cast<native_handle_t*>(handle));
}

status_t GraphicBuffer::allocate(uint32_t w, uint32_t h, PixelFormat format, uint32_t layers, uint64_t usage,
                                 const std::string& requestorName) {
    Attributes wanted;
    wanted.width = w && h ? w : 1;
    wanted.height = w && h ? h : 1;
    wanted.stride = wanted.width;
    wanted.format = format;
    wanted.layerCount = std::max(layers, 1u);
    wanted.usage = usage;

    if (const status_t fault = injectedAllocationFault(); fault != NO_ERROR) return fault;
    BufferLayout layout;
    const status_t status = describeLayout(wanted.width, wanted.height, wanted.layerCount, format, &layout);
    if (status != NO_ERROR) return status;
    base::unique_fd memory = createSealedMemory(requestorName.c_str(), layout.byteCount);
    if (memory == -1) return NO_MEMORY;
    handle = wrapDescriptor(std::move(memory));
    if (handle == nullptr) return NO_MEMORY;
    describe(wanted);
    mByteCount = layout.byteCount;
    return NO_ERROR;
}

void GraphicBuffer::describe(const Attributes& attributes) {
    width = static_cast<int>(attributes.width);
    height = static_cast<int>(attributes.height);
    stride = static_cast<int>(attributes.stride);
    format = attributes.format;
    layerCount = attributes.layerCount;
    usage = attributes.usage;
    usage_deprecated = static_cast<int>(attributes.usage);
    mGenerationNumber = attributes.generationNumber;
}

sp<GraphicBuffer> GraphicBuffer::importFrom(const native_handle_t* handle, const Attributes& attributes) {
    if (handle == nullptr || handle->numFds != 1 || attributes.stride != attributes.width) return nullptr;
    if (attributes.width == 0 || attributes.height == 0 || attributes.layerCount == 0) return nullptr;
    BufferLayout layout;
    if (describeLayout(attributes.width, attributes.height, attributes.layerCount, attributes.format,
                       &layout) != NO_ERROR)
        return nullptr;
    base::unique_fd memory(fcntl(handle->data[0], F_DUPFD_CLOEXEC, 0));
    if (memory == -1 || !isSealedMemory(memory, layout.byteCount)) return nullptr;

    sp<GraphicBuffer> buffer(new GraphicBuffer);
    buffer->handle = wrapDescriptor(std::move(memory));
    if (buffer->handle == nullptr) return nullptr;
    buffer->describe(attributes);
    buffer->mId = attributes.id;
    buffer->mByteCount = layout.byteCount;
    return buffer;
}

GraphicBuffer::Attributes GraphicBuffer::attributes() const {
    Attributes result;
    result.width = getWidth();
    result.height = getHeight();
    result.stride = getStride();
    result.format = format;
    result.layerCount = getLayerCount();
    result.usage = usage;
    result.generationNumber = mGenerationNumber;
    result.id = mId;
    return result;
}

ANativeWindowBuffer* GraphicBuffer::getNativeBuffer() const {
    return static_cast<ANativeWindowBuffer*>(const_cast<GraphicBuffer*>(this));
}

bool GraphicBuffer::needsReallocation(uint32_t w, uint32_t h, PixelFormat wantedFormat, uint32_t layers,
                                      uint64_t wantedUsage) {
    if (w != getWidth() || h != getHeight() || wantedFormat != format || layers != getLayerCount())
        return true;
    if ((usage & wantedUsage) != wantedUsage) return true;
    return ((usage ^ wantedUsage) & GRALLOC_USAGE_PROTECTED) != 0;
}

status_t GraphicBuffer::lock(uint32_t cpuUsage, void** vaddr, int32_t* outBytesPerPixel,
                             int32_t* outBytesPerStride) {
    return lock(cpuUsage, getBounds(), vaddr, outBytesPerPixel, outBytesPerStride);
}

status_t GraphicBuffer::lock(uint32_t cpuUsage, const Rect& rect, void** vaddr, int32_t* outBytesPerPixel,
                             int32_t* outBytesPerStride) {
    if (vaddr == nullptr || handle == nullptr || !contains(getBounds(), rect) ||
        !allowsCpuAccess(usage, cpuUsage))
        return BAD_VALUE;
    BufferLayout layout;
    const status_t status = describeLayout(getWidth(), getHeight(), getLayerCount(), format, &layout);
    if (status != NO_ERROR) return status;

    std::lock_guard<std::mutex> lock(mMappingLock);
    if (mMapping == nullptr) {
        void* mapping = mmap(nullptr, mByteCount, PROT_READ | PROT_WRITE, MAP_SHARED, handle->data[0], 0);
        if (mapping == MAP_FAILED) return NO_MEMORY;
        mMapping = mapping;
    }
    mLockCount++;
    *vaddr = mMapping;
    if (outBytesPerPixel != nullptr) *outBytesPerPixel = layout.bytesPerPixel;
    if (outBytesPerStride != nullptr) *outBytesPerStride = layout.bytesPerRow;
    return NO_ERROR;
}

status_t GraphicBuffer::unlock() {
    std::lock_guard<std::mutex> lock(mMappingLock);
    if (mLockCount == 0) return BAD_VALUE;
    mLockCount--;
    return NO_ERROR;
}

}  // namespace android
