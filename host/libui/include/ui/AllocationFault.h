#pragma once

#include <utils/Errors.h>

namespace android {
/**
 * Makes the next allocations of graphic buffers in this process fail with the given status, until it goes out
 * of scope; the first skipCount still succeed. One at a time. For tests of this host only.
 */
class AllocationFault {
  public:
    explicit AllocationFault(status_t status = NO_MEMORY, int skipCount = 0);
    ~AllocationFault();
    AllocationFault(const AllocationFault&) = delete;
    AllocationFault& operator=(const AllocationFault&) = delete;
};

}  // namespace android
