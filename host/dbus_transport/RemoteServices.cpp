#include "RemoteServices.h"

#include <android/log.h>

#include <atomic>
#include <cstdlib>

#include "DesktopBusNames.h"
#include "DesktopTransport.h"
#include "RemoteCameraDesktop.h"

namespace vel::dbus_transport {

namespace bus = vel::desktop_bus;

namespace {

void tellOnceThatNoBusIsNamed() {
    static std::atomic<bool> told{false};
    if (told.exchange(true)) return;
    __android_log_print(ANDROID_LOG_WARN, bus::kLogTag, "No desktop service: %s is not set",
                        bus::kAddressVariable);
}

}  // namespace

android::sp<korvanta::hardware::camera::desktop::V2_0::ICameraDesktop> findDesktopService(
    const std::string& name) {
    const char* const address = std::getenv(bus::kAddressVariable);
    if (address == nullptr || *address == '\0') {
        tellOnceThatNoBusIsNamed();
        return nullptr;
    }
    if (name != "default") return nullptr;
    DesktopTransport& transport = DesktopTransport::instance();
    const OpenSession session = transport.open(address);
    if (session.id == 0) return nullptr;
    std::string owner;
    if (transport.getNameOwner(session.id, bus::kServiceName, &owner).kind != CallStatus::OK) return nullptr;
    return new RemoteCameraDesktop(transport, session, owner);
}

}  // namespace vel::dbus_transport
