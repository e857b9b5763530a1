#pragma once

#include <cstddef>

namespace vel::chaos {

/** What this process holds. */
struct Resources {
    size_t descriptors = 0;
    size_t threads = 0;
    size_t memoryKib = 0;  // resident

    static Resources now();
};

}  // namespace vel::chaos
