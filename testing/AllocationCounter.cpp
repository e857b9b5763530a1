#include "AllocationCounter.h"

#include <stdlib.h>

// Calls are counted on their way to the C library's own functions, by the names that one C library has for
// them.
#if !defined(__GLIBC__) || defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define HEAP_IS_FOREIGN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define HEAP_IS_FOREIGN 1
#endif
#endif

namespace {
thread_local size_t tAllocations = 0;
}

bool AllocationCounter::available() {
#ifdef HEAP_IS_FOREIGN
    return false;
#else
    return true;
#endif
}

AllocationCounter::AllocationCounter() : mStart(tAllocations) {}

size_t AllocationCounter::count() const {
    return tAllocations - mStart;
}

#ifndef HEAP_IS_FOREIGN

// operator new ends in malloc, so that these see it too.
extern "C" {

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);

void* malloc(size_t size) {
    ++tAllocations;
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    ++tAllocations;
    return __libc_calloc(count, size);
}

void* realloc(void* block, size_t size) {
    ++tAllocations;
    return __libc_realloc(block, size);
}

}  // extern "C"

#endif
