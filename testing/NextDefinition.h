#pragma once

#include <dlfcn.h>

/** The library's own function, for a test program that defines one of that name in its place. */
template <typename Function>
Function* nextDefinition(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
