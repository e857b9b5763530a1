#pragma once

#include <cstdint>

namespace korvanta::hardware::camera::desktop::V2_0 {

/** The peer, or the surface, that a call of the desktop service concerns. */
enum class ClientType : uint8_t {
    CLIENT_APP = 0,
    CLIENT_CAMERA_SERVICE = 1,
    CLIENT_CAMERA_HAL = 2,
    CLIENT_IMG_SUB = 7,
};

}  // namespace korvanta::hardware::camera::desktop::V2_0
