#include <hidl/HidlTransportSupport.h>
#include <hidl_host/RemoteIdentity.h>

#include <map>
#include <mutex>

namespace vel::host {

namespace {

using android::hidl::base::V1_0::IBase;

struct Identities {
    std::mutex lock;
    std::map<const IBase*, std::string> byProxy;
};

// Never destroyed: proxies may go after the static objects.
Identities& identities() {
    static Identities* const all = new Identities;
    return *all;
}

}  // namespace

void setRemoteIdentity(const IBase* proxy, const std::string& identity) {
    std::lock_guard<std::mutex> lock(identities().lock);
    identities().byProxy[proxy] = identity;
}

void forgetRemoteIdentity(const IBase* proxy) {
    std::lock_guard<std::mutex> lock(identities().lock);
    identities().byProxy.erase(proxy);
}

std::string remoteIdentity(const IBase* proxy) {
    std::lock_guard<std::mutex> lock(identities().lock);
    const auto found = identities().byProxy.find(proxy);
    return found == identities().byProxy.end() ? std::string() : found->second;
}

}  // namespace vel::host

namespace android::hardware {

bool interfacesEqual(const sp<android::hidl::base::V1_0::IBase>& left,
                     const sp<android::hidl::base::V1_0::IBase>& right) {
    if (left == right) return true;
    if (left == nullptr || right == nullptr) return false;
    const std::string identity = vel::host::remoteIdentity(left.get());
    return !identity.empty() && identity == vel::host::remoteIdentity(right.get());
}

void configureRpcThreadpool(size_t, bool) {}

}  // namespace android::hardware
