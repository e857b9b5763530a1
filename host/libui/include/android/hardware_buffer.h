#pragma once

#include <android/rect.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum AHardwareBuffer_Format {
    AHARDWAREBUFFER_FORMAT_R8G8B8A8_UNORM = 1,
    AHARDWAREBUFFER_FORMAT_R8G8B8X8_UNORM = 2,
    AHARDWAREBUFFER_FORMAT_R8G8B8_UNORM = 3,
    AHARDWAREBUFFER_FORMAT_R5G6B5_UNORM = 4,
    AHARDWAREBUFFER_FORMAT_BLOB = 0x21,
    AHARDWAREBUFFER_FORMAT_Y8Cb8Cr8_420 = 0x23,
};

enum AHardwareBuffer_UsageFlags {
    AHARDWAREBUFFER_USAGE_CPU_READ_NEVER = 0,
    AHARDWAREBUFFER_USAGE_CPU_READ_RARELY = 2,
    AHARDWAREBUFFER_USAGE_CPU_READ_OFTEN = 3,
    AHARDWAREBUFFER_USAGE_CPU_READ_MASK = 0xF,
    AHARDWAREBUFFER_USAGE_CPU_WRITE_NEVER = 0,
    AHARDWAREBUFFER_USAGE_CPU_WRITE_RARELY = 0x20,
    AHARDWAREBUFFER_USAGE_CPU_WRITE_OFTEN = 0x30,
    AHARDWAREBUFFER_USAGE_CPU_WRITE_MASK = 0xF0,
    AHARDWAREBUFFER_USAGE_PROTECTED_CONTENT = 0x4000,
};

typedef struct AHardwareBuffer_Desc {
    uint32_t width;   // pixels
    uint32_t height;  // pixels
    uint32_t layers;
    uint32_t format;  // AHardwareBuffer_Format
    uint64_t usage;   // AHardwareBuffer_UsageFlags
    uint32_t stride;  // pixels; ignored by allocate
    uint32_t rfu0;    // zero
    uint64_t rfu1;    // zero
} AHardwareBuffer_Desc;

/** Another name for a GraphicBuffer; both kinds of pointer name the same object. */
typedef struct AHardwareBuffer AHardwareBuffer;

/**
 * Allocates a buffer with one reference, which the caller releases. 0, -EINVAL for a null argument, a zero
 * size, no layers or a non-zero rfu field, or the allocation's status; *outBuffer is written on success only.
 */
int AHardwareBuffer_allocate(const AHardwareBuffer_Desc* desc, AHardwareBuffer** outBuffer);

/** Adds or drops a strong reference. The buffer must not be null. */
void AHardwareBuffer_acquire(AHardwareBuffer* buffer);
void AHardwareBuffer_release(AHardwareBuffer* buffer);

/** Writes what the buffer is, its stride included; nothing when either argument is null. */
void AHardwareBuffer_describe(const AHardwareBuffer* buffer, AHardwareBuffer_Desc* outDesc);

/**
 * Waits without limit for the fence (a descriptor that the call takes over, or -1) and locks the buffer for
 * CPU access of the given kind. A null rectangle means the whole buffer. 0, -EINVAL, -ENOSYS for a buffer of
 * several layers, or GraphicBuffer::lock's status.
 */
int AHardwareBuffer_lock(AHardwareBuffer* buffer, uint64_t usage, int32_t fence, const ARect* rect,
                         void** outVirtualAddress);

/** Unlocks once. *fence, when wanted, becomes -1: the memory is ready at once. */
int AHardwareBuffer_unlock(AHardwareBuffer* buffer, int32_t* fence);

#ifdef __cplusplus
}
#endif
