#pragma once

#include <cstdint>

namespace android::hidl::base::V1_0 {

/** Where an object lives: its process, its address there, and the width of that process. */
struct DebugInfo final {
    enum class Architecture : int32_t { UNKNOWN = 0, IS_64BIT = 1, IS_32BIT = 2 };

    int32_t pid;
    uint64_t ptr;
    Architecture arch;
};

}  // namespace android::hidl::base::V1_0
