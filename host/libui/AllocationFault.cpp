#include <ui/AllocationFault.h>

#include <atomic>

#include "BufferMemory.h"

namespace android {

namespace {
std::atomic<status_t> gFault{NO_ERROR};
std::atomic<int> gSkipCount{0};
}  // namespace

status_t injectedAllocationFault() {
    const status_t fault = gFault;
    if (fault == NO_ERROR || gSkipCount.fetch_sub(1) > 0) return NO_ERROR;
    return fault;
}

AllocationFault::AllocationFault(status_t status, int skipCount) {
    gSkipCount = skipCount;
    gFault = status;
}

AllocationFault::~AllocationFault() {
    gFault = NO_ERROR;
}

}  // namespace android
