#pragma once

#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>

#include <string>

namespace vel::host {

/// A new proxy of the desktop service that another process registered as `name`; null when there is none.
/// Asked only when this process has none of that name. Never waits for the service.
::android::sp<::korvanta::hardware::camera::desktop::V2_0::ICameraDesktop> findRemoteDesktopService(
    const std::string& name);

}  // namespace vel::host
