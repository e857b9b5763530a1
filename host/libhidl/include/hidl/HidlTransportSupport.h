#pragma once

#include <android/hidl/base/1.0/IBase.h>
#include <utils/StrongPointer.h>

#include <cstddef>

#pragma GCC visibility push(default)

namespace android::hardware {

/**
 * True for two pointers to the same local object, for two proxies of the same remote object, and for two
 * nulls.
 */
bool interfacesEqual(const sp<::android::hidl::base::V1_0::IBase>& left,
                     const sp<::android::hidl::base::V1_0::IBase>& right);

/**
 * Accepted and without effect: calls within a process need no pool, and the transport between processes sizes
 * its own.
 */
void configureRpcThreadpool(size_t maxThreads, bool callerWillJoin);

}  // namespace android::hardware

#pragma GCC visibility pop
