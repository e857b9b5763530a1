#include <hidl_host/RemoteServices.h>

#include "DesktopTransport.h"

namespace vel::host {

android::sp<DesktopTransport::ICameraDesktop> findRemoteDesktopService(const std::string& name) {
    return DesktopTransport::instance().findService(name);
}

}  // namespace vel::host
