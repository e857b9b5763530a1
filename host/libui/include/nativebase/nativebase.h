#pragma once

#include <cutils/native_handle.h>
#include <stdint.h>

/** Head of every native object: how C code counts its references. */
typedef struct android_native_base_t {
    void (*incRef)(struct android_native_base_t* base) = nullptr;
    void (*decRef)(struct android_native_base_t* base) = nullptr;
} android_native_base_t;

/** The plain part of a GraphicBuffer. */
typedef struct ANativeWindowBuffer {
    ANativeWindowBuffer() = default;
    void incStrong(const void*) const { common.incRef(const_cast<android_native_base_t*>(&common)); }
    void decStrong(const void*) const { common.decRef(const_cast<android_native_base_t*>(&common)); }

    android_native_base_t common;
    int width = 0;             // pixels
    int height = 0;            // pixels
    int stride = 0;            // pixels
    int format = 0;            // HAL_PIXEL_FORMAT_*
    int usage_deprecated = 0;  // low 32 bits of usage
    uintptr_t layerCount = 0;
    const native_handle_t* handle = nullptr;  // null until memory is allocated or imported
    uint64_t usage = 0;                       // GRALLOC_USAGE_*
} ANativeWindowBuffer;
