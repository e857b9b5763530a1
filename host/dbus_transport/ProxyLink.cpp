#include "ProxyLink.h"

#include <android/log.h>
#include <hidl_host/RemoteIdentity.h>

#include "DesktopBusNames.h"

namespace vel::dbus_transport {

namespace bus = vel::desktop_bus;

namespace {

std::string identityOf(const RemoteObject& target) {
    return std::to_string(target.session) + " " + target.object.busName + " " + target.object.path;
}

}  // namespace

using android::sp;

ProxyLink::ProxyLink(DesktopTransport& transport, IBase* proxy, const RemoteObject& target,
                     const char* interface)
    : mTransport(transport), mProxy(proxy), mTarget(target), mInterface(interface) {
    host::setRemoteIdentity(mProxy, identityOf(mTarget));
}

ProxyLink::~ProxyLink() {
    host::forgetRemoteIdentity(mProxy);
}

CallStatus ProxyLink::call(const char* method, const BusLoop::WriteArguments& writeArguments,
                           const BusLoop::ReadReply& readReply) const {
    CallStatus status = mTransport.loop().call(mTarget, mInterface, method, writeArguments, readReply);
    if (status.kind == CallStatus::REFUSED || status.kind == CallStatus::FAILED) {
        __android_log_print(ANDROID_LOG_WARN, bus::kLogTag, "%s failed: %s", method, status.text.c_str());
    }
    return status;
}

android::hardware::Return<void> ProxyLink::ping() const {
    return mTransport.loop()
        .call(mTarget, "org.freedesktop.DBus.Peer", "Ping", writeNothing, readNothing)
        .toStatus();
}

bool ProxyLink::linkToDeath(const sp<Recipient>& recipient, uint64_t cookie) const {
    if (recipient == nullptr) return true;
    if (!mLinks->add(recipient, cookie)) return false;
    mTransport.watch(mTarget, {mProxy, mLinks});
    return true;
}

}  // namespace vel::dbus_transport
