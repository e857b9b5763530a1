#pragma once

// The library is built with hidden visibility: what the camera HAL uses is marked VEL_EXPORT, and what an
// exported class keeps to the library itself is marked VEL_LOCAL.
#define VEL_EXPORT __attribute__((visibility("default")))
#define VEL_LOCAL __attribute__((visibility("hidden")))
