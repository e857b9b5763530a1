#pragma once

#include <android/hardware_buffer.h>
#include <hardware/gralloc.h>
#include <nativebase/nativebase.h>
#include <ui/ANativeObjectBase.h>
#include <ui/PixelFormat.h>
#include <ui/Rect.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>

#include <mutex>
#include <string>

namespace android {

/**
 * A buffer of pixels in memory that several processes may map. The memory is a memfd whose size is sealed; it
 * is mapped at the first lock and unmapped with the object, and lives as long as any process holds it.
 * Any thread may call; held by sp only.
 */
class GraphicBuffer : public ANativeObjectBase<ANativeWindowBuffer, GraphicBuffer, RefBase> {
  public:
    enum {
        USAGE_SW_READ_NEVER = GRALLOC_USAGE_SW_READ_NEVER,
        USAGE_SW_READ_RARELY = GRALLOC_USAGE_SW_READ_RARELY,
        USAGE_SW_READ_OFTEN = GRALLOC_USAGE_SW_READ_OFTEN,
        USAGE_SW_READ_MASK = GRALLOC_USAGE_SW_READ_MASK,
        USAGE_SW_WRITE_NEVER = GRALLOC_USAGE_SW_WRITE_NEVER,
        USAGE_SW_WRITE_RARELY = GRALLOC_USAGE_SW_WRITE_RARELY,
        USAGE_SW_WRITE_OFTEN = GRALLOC_USAGE_SW_WRITE_OFTEN,
        USAGE_SW_WRITE_MASK = GRALLOC_USAGE_SW_WRITE_MASK,
        USAGE_PROTECTED = GRALLOC_USAGE_PROTECTED,
    };

    /** What travels beside a buffer's native handle. */
    struct Attributes {
        uint32_t width = 0, height = 0, stride = 0;  // pixels
        PixelFormat format = 0;
        uint32_t layerCount = 1;
        uint64_t usage = 0;
        uint32_t generationNumber = 0;
        uint64_t id = 0;
    };

    /** The same object under its other name: no reference is added, null stays null. */
    static GraphicBuffer* fromAHardwareBuffer(AHardwareBuffer* buffer);
    static const GraphicBuffer* fromAHardwareBuffer(const AHardwareBuffer* buffer);
    AHardwareBuffer* toAHardwareBuffer();
    const AHardwareBuffer* toAHardwareBuffer() const;

    /**
     * A buffer of another process (or of this one) made from its handle and attributes, its id kept; the
     * handle is cloned. Null when the descriptor is missing, too small for the attributes or not sealed
     * against shrinking, for unknown formats, and without descriptors left. Host only.
     */
    static sp<GraphicBuffer> importFrom(const native_handle_t* handle, const Attributes& attributes);
    Attributes attributes() const;

    /** Without memory: every size is 0. That is no failure, so initCheck() is 0. */
    GraphicBuffer();
    /**
     * Allocates at once; initCheck() tells the outcome. A size with a zero becomes 1 x 1, no layers become
     * one.
     */
    GraphicBuffer(uint32_t w, uint32_t h, PixelFormat format, uint32_t layerCount, uint64_t usage,
                  std::string requestorName = "<Unknown>");

    /**
     * 0; BAD_VALUE for a number of pixels beyond 32 bits; NO_MEMORY for a format or shape that cannot be
     * allocated otherwise; or the status injected by a test.
     */
    status_t initCheck() const { return mInitCheck; }

    uint32_t getWidth() const { return static_cast<uint32_t>(width); }
    uint32_t getHeight() const { return static_cast<uint32_t>(height); }
    uint32_t getStride() const { return static_cast<uint32_t>(stride); }
    uint64_t getUsage() const { return usage; }
    PixelFormat getPixelFormat() const { return format; }
    uint32_t getLayerCount() const { return static_cast<uint32_t>(layerCount); }
    Rect getBounds() const { return Rect(width, height); }
    uint64_t getId() const { return mId; }  // unique over all processes, kept by an import
    uint32_t getGenerationNumber() const { return mGenerationNumber; }
    void setGenerationNumber(uint32_t number) { mGenerationNumber = number; }
    size_t getByteCount() const { return mByteCount; }  // of the pixels, 0 without memory. Host only.
    ANativeWindowBuffer* getNativeBuffer() const;

    /**
     * True when size, format or layer count differ, a requested usage bit is missing, or PROTECTED differs.
     */
    bool needsReallocation(uint32_t w, uint32_t h, PixelFormat format, uint32_t layers, uint64_t usage);

    /**
     * Gives the address of the first byte of the buffer (whatever the rectangle) for CPU access. Each
     * success needs one unlock; locks may nest and do not exclude each other. BAD_VALUE for a null address, a
     * rectangle outside the buffer, a buffer without memory, and for CPU bits of a kind that the buffer was
     * not allocated with; NO_MEMORY when it cannot be mapped. Both sizes are optional, -1 when the format has
     * no single one. Does not wait for fences.
     */
    status_t lock(uint32_t usage, void** vaddr, int32_t* outBytesPerPixel = nullptr,
                  int32_t* outBytesPerStride = nullptr);
    status_t lock(uint32_t usage, const Rect& rect, void** vaddr, int32_t* outBytesPerPixel = nullptr,
                  int32_t* outBytesPerStride = nullptr);
    /** BAD_VALUE when the buffer is not locked. */
    status_t unlock();

  private:
    ~GraphicBuffer() override;
    status_t allocate(uint32_t w, uint32_t h, PixelFormat format, uint32_t layers, uint64_t usage,
                      const std::string& requestorName);
    void describe(const Attributes& attributes);

    status_t mInitCheck = NO_ERROR;
    uint64_t mId;
    uint32_t mGenerationNumber = 0;
    size_t mByteCount = 0;
    std::mutex mMappingLock;   // guards the two members below
    void* mMapping = nullptr;  // all of the memory, from the first lock on
    int mLockCount = 0;
};

}  // namespace android
