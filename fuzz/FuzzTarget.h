#pragma once

#include <android/log.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

// What every fuzz target has: its entrance, and how it finds a fault.

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

inline void require(bool condition) {
    if (!condition) std::abort();
}

// Nothing is logged from the start of the process on.
inline const bool kSilent =
    (__android_log_set_logger([](const __android_logger_data*, const char*) {}), true);
