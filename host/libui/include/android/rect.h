#pragma once

#include <stdint.h>

/** A rectangle of pixels; right and bottom lie one past the last pixel. */
typedef struct ARect {
    int32_t left;
    int32_t top;
    int32_t right;
    int32_t bottom;
} ARect;
