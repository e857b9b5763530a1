#include <hidl_host/RemoteServices.h>

namespace vel::host {

::android::sp<::korvanta::hardware::camera::desktop::V2_0::ICameraDesktop> findRemoteDesktopService(
    const std::string&) {
    return nullptr;
}

}  // namespace vel::host
