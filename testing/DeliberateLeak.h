#pragma once

/** Of the leak checker, where there is one. */
extern "C" __attribute__((weak)) void __lsan_disable();
extern "C" __attribute__((weak)) void __lsan_enable();

/**
 * While one lives, what its thread allocates is not reported as a leak: for behaviour that keeps memory on
 * purpose.
 */
struct DeliberateLeak {
    DeliberateLeak() {
        if (__lsan_disable != nullptr) __lsan_disable();
    }
    ~DeliberateLeak() {
        if (__lsan_enable != nullptr) __lsan_enable();
    }
};
