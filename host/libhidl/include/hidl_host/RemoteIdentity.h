#pragma once

#include <android/hidl/base/1.0/IBase.h>

#include <string>

namespace vel::host {

/**
 * Lets interfacesEqual() recognise two proxies of one remote object. A proxy states its identity in its
 * constructor and forgets it in its destructor; the same remote object has the same text, another one
 * another. Thread-safe.
 */
void setRemoteIdentity(const ::android::hidl::base::V1_0::IBase* proxy, const std::string& identity);
void forgetRemoteIdentity(const ::android::hidl::base::V1_0::IBase* proxy);

/** Empty when the object has stated none. */
std::string remoteIdentity(const ::android::hidl::base::V1_0::IBase* proxy);

}  // namespace vel::host
