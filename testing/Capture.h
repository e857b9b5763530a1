#pragma once

#include <utility>

#include "CameraMetadata.h"
#include "DesktopCaptureMetadata.h"

/** One capture as the HAL holds it: the buffer it came with, and what is put in its place. */
struct Capture {
    enum Kind { RESULT, REQUEST };

    explicit Capture(CameraMetadata buffer = nullptr, Kind kind = RESULT)
        : original(std::move(buffer)), current(original.get()) {
        md.metadata = &current;
        md.isRequest = kind == REQUEST;
    }
    ~Capture() {
        if (current != original.get()) free_camera_metadata(current);
    }
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    const CameraMetadata original;
    camera_metadata_t* current;
    DesktopCaptureMetadata md;
};
