#pragma once

// While one lives, what its thread allocates is not reported as a leak: for behaviour that keeps memory on
// purpose.
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VEL_LEAKS_ARE_CHECKED
#endif
#elif defined(__SANITIZE_ADDRESS__)
#define VEL_LEAKS_ARE_CHECKED
#endif

#ifdef VEL_LEAKS_ARE_CHECKED
#include <sanitizer/lsan_interface.h>
using DeliberateLeak = __lsan::ScopedDisabler;
#else
struct DeliberateLeak {
    DeliberateLeak() {}
    ~DeliberateLeak() {}
};
#endif
