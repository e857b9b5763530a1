#pragma once

#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>

#include <string>

namespace vel::dbus_transport {

/**
 * A new proxy of the desktop service that another process offers under the name, on the bus that the
 * environment names; null when there is no such service, or, logged, no bus. Waits for neither beyond a few
 * seconds. Any thread.
 */
android::sp<korvanta::hardware::camera::desktop::V2_0::ICameraDesktop> findDesktopService(
    const std::string& name);

}  // namespace vel::dbus_transport
