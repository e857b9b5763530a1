#pragma once

#include <android/hardware_buffer.h>
#include <stdint.h>

#include "NdkMediaError.h"

#ifdef __cplusplus
extern "C" {
#endif

/** One frame of an image reader. Not safe to use while it is being deleted. */
typedef struct AImage AImage;

enum AIMAGE_FORMATS {
    AIMAGE_FORMAT_RGBA_8888 = 0x1,
    AIMAGE_FORMAT_RGBX_8888 = 0x2,
    AIMAGE_FORMAT_RGB_888 = 0x3,
    AIMAGE_FORMAT_RGB_565 = 0x4,
    AIMAGE_FORMAT_RGBA_FP16 = 0x16,
    AIMAGE_FORMAT_YUV_420_888 = 0x23,
    AIMAGE_FORMAT_JPEG = 0x100,
    AIMAGE_FORMAT_RAW16 = 0x20,
    AIMAGE_FORMAT_RAW_PRIVATE = 0x24,  // bytes of the producer's own, one row, one plane
    AIMAGE_FORMAT_RAW10 = 0x25,
    AIMAGE_FORMAT_RAW12 = 0x26,
    AIMAGE_FORMAT_DEPTH16 = 0x44363159,
    AIMAGE_FORMAT_DEPTH_POINT_CLOUD = 0x101,
    AIMAGE_FORMAT_PRIVATE = 0x22,  // opaque: no planes, only the hardware buffer
};

/**
 * Gives the image's buffer back to the queue, unlocked, and frees the image; null is ignored. Must also be
 * called, and is safe, after the reader was deleted. Waits for an acquire of the same reader.
 */
void AImage_delete(AImage* image);

/**
 * The address and size in bytes of a plane, valid until the image is deleted. The size is the width of the
 * buffer that the producer dequeued, whatever the reader's own. INVALID_PARAMETER: null argument;
 * CANNOT_LOCK_IMAGE: the reader's usage has no CPU-read bit, or the buffer cannot be locked; then
 * INVALID_PARAMETER: plane index other than 0; ERROR_UNKNOWN: buffer of more than one row. Ends the process
 * when the reader was deleted.
 */
media_status_t AImage_getPlaneData(const AImage* image, int planeIdx, uint8_t** data, int* dataLength);

/**
 * The image's buffer, without a reference of its own. INVALID_PARAMETER: null argument; INVALID_OBJECT: the
 * reader was deleted.
 */
media_status_t AImage_getHardwareBuffer(const AImage* image, AHardwareBuffer** buffer);

/** The producer's timestamp (ns), -1 for INVALID_OBJECT. Failures as for AImage_getHardwareBuffer. */
media_status_t AImage_getTimestamp(const AImage* image, int64_t* timestampNs);

#ifdef __cplusplus
}
#endif
