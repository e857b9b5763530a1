#include "BufferMemory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace android {

namespace {

constexpr uint64_t kMaxByteCount = INT32_MAX;

// Bytes per pixel of formats with one plane, 0 for others.
int32_t packedPixelBytes(PixelFormat format) {
    switch (format) {
        case HAL_PIXEL_FORMAT_RGBA_8888:
        case HAL_PIXEL_FORMAT_RGBX_8888:
        case HAL_PIXEL_FORMAT_BGRA_8888:
        case HAL_PIXEL_FORMAT_RGBA_1010102:
            return 4;
        case HAL_PIXEL_FORMAT_RGB_888:
            return 3;
        case HAL_PIXEL_FORMAT_RGB_565:
        case HAL_PIXEL_FORMAT_RAW16:
        case HAL_PIXEL_FORMAT_Y16:
        case HAL_PIXEL_FORMAT_YCBCR_422_I:
            return 2;
        case HAL_PIXEL_FORMAT_RGBA_FP16:
            return 8;
        case HAL_PIXEL_FORMAT_Y8:
        case HAL_PIXEL_FORMAT_BLOB:
        case HAL_PIXEL_FORMAT_RAW_OPAQUE:
            return 1;
        default:
            return 0;
    }
}

bool isYuv420(PixelFormat format) {
    return format == HAL_PIXEL_FORMAT_YCRCB_420_SP || format == HAL_PIXEL_FORMAT_YCBCR_420_888 ||
           format == HAL_PIXEL_FORMAT_YV12 || format == HAL_PIXEL_FORMAT_IMPLEMENTATION_DEFINED;
}

}  // namespace

status_t describeLayout(uint32_t width, uint32_t height, uint32_t layers, PixelFormat format,
                        BufferLayout* outLayout) {
    if (UINT32_MAX / width / height < layers) return BAD_VALUE;
    const int32_t pixelBytes = packedPixelBytes(format);
    if (pixelBytes == 0 && !isYuv420(format)) return NO_MEMORY;
    if (format == HAL_PIXEL_FORMAT_BLOB && height != 1) return NO_MEMORY;

    const uint64_t pixels = static_cast<uint64_t>(width) * height;  // in a layer; 32 bits at most
    const uint64_t chromaWidth = (static_cast<uint64_t>(width) + 1) / 2;
    const uint64_t chromaHeight = (static_cast<uint64_t>(height) + 1) / 2;
    const uint64_t layerBytes = pixelBytes ? pixels * pixelBytes : pixels + 2 * chromaWidth * chromaHeight;
    if (layerBytes * layers > kMaxByteCount) return NO_MEMORY;

    outLayout->byteCount = layerBytes * layers;
    outLayout->bytesPerPixel = pixelBytes ? pixelBytes : -1;
    outLayout->bytesPerRow = pixelBytes ? static_cast<int32_t>(width * pixelBytes) : -1;
    return NO_ERROR;
}

base::unique_fd createSealedMemory(const char* name, size_t byteCount) {
    base::unique_fd fd(memfd_create(name, MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (fd == -1 || ftruncate(fd, static_cast<off_t>(byteCount)) != 0) return {};
    if (fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0) return {};
    return fd;
}

bool isSealedMemory(int fd, size_t byteCount) {
    const int seals = fcntl(fd, F_GET_SEALS);
    if (seals < 0 || !(seals & F_SEAL_SHRINK)) return false;
    struct stat info;
    return fstat(fd, &info) == 0 && static_cast<uint64_t>(info.st_size) >= byteCount;
}

}  // namespace android
