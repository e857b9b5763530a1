#pragma once

#include <android-base/unique_fd.h>
#include <stddef.h>
#include <ui/PixelFormat.h>
#include <utils/Errors.h>

namespace android {

/** How the pixels of a buffer lie in its memory. */
struct BufferLayout {
    size_t byteCount;       // of all layers
    int32_t bytesPerPixel;  // -1 for planar formats
    int32_t bytesPerRow;    // -1 for planar formats
};

/**
 * BAD_VALUE for a number of pixels beyond 32 bits, which is all that the device counts with; NO_MEMORY for a
 * format or shape that has no layout here or takes more than 2 GiB. No size may be zero.
 */
status_t describeLayout(uint32_t width, uint32_t height, uint32_t layers, PixelFormat format,
                        BufferLayout* outLayout);

/** Zeroed shared memory of that size which can neither shrink nor grow, or an invalid descriptor. */
base::unique_fd createSealedMemory(const char* name, size_t byteCount);

/** True for a descriptor of at least that many bytes of memory that its other holders cannot take away. */
bool isSealedMemory(int fd, size_t byteCount);

/** What a test wants the next allocation to fail with, NO_ERROR normally. */
status_t injectedAllocationFault();

}  // namespace android
