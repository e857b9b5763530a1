#pragma once

#include <system/camera_metadata.h>

#include <cstdint>

/** What the HAL passes for one capture request or result. The HAL owns the record and shares this layout. */
struct DesktopCaptureMetadata {
    // Where the HAL keeps the pointer to the capture's metadata buffer, which may be null. A buffer that was
    // created or grown is stored here; the one that it replaces stays the HAL's to free.
    camera_metadata_t** metadata = nullptr;
    uint32_t frameNumber = 0;
    bool isRequest = false;  // else a result
    // Set, and never cleared, when *metadata was replaced: it then points to a buffer for the HAL to free
    // with free_camera_metadata.
    bool isMetadataReplaced = false;
};
