#pragma once

#include <android/native_window.h>
#include <stdint.h>

#include "NdkImage.h"
#include "NdkMediaError.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * The consumer of a buffer queue of its own, which hands out its frames as images. Calls may come from any
 * thread, but none during or after AImageReader_delete.
 */
typedef struct AImageReader AImageReader;

/** A reader with CPU-read usage. */
media_status_t AImageReader_new(int32_t width, int32_t height, int32_t format, int32_t maxImages,
                                AImageReader** reader);

/**
 * maxImages is how many images may be outstanding. INVALID_PARAMETER: a size or maxImages below 1, maxImages
 * above 64, unknown format, AIMAGE_FORMAT_PRIVATE with CPU-read usage, null reader. Ends the process for 63
 * and 64 images, which the queue cannot lend, and for known formats other than RAW_PRIVATE and PRIVATE, which
 * are absent. *reader is written on success only.
 */
media_status_t AImageReader_newWithUsage(int32_t width, int32_t height, int32_t format, uint64_t usage,
                                         int32_t maxImages, AImageReader** reader);

/**
 * Abandons the queue (producers get NO_INIT), closes every outstanding image and frees the reader; null is
 * ignored. Closed images are still to be deleted.
 */
void AImageReader_delete(AImageReader* reader);

/**
 * The window whose producer fills this reader: always the same, borrowed, gone with the reader.
 * INVALID_PARAMETER: null argument.
 */
media_status_t AImageReader_getWindow(AImageReader* reader, ANativeWindow** window);

/**
 * The oldest frame as a new image, null on failure; waits without limit for the frame's fence.
 * INVALID_PARAMETER: null argument (nothing is written then). MAX_IMAGES_ACQUIRED: maxImages are outstanding,
 * whether or not a frame waits. NO_BUFFER_AVAILABLE: no frame. ERROR_UNKNOWN, not from a PRIVATE reader:
 * a frame of another format, which is dropped, or one whose crop does not start at 0, 0, which is lost
 * together with one image place.
 */
media_status_t AImageReader_acquireNextImage(AImageReader* reader, AImage** image);

/**
 * The newest frame, older ones being dropped as far as image places allow: that takes two free places, and
 * with one the oldest frame comes. Statuses as above.
 */
media_status_t AImageReader_acquireLatestImage(AImageReader* reader, AImage** image);

#ifdef __cplusplus
}
#endif
