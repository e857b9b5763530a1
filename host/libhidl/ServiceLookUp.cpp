// The look-up of services: first in this process, then in others.

#include <android/log.h>
#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>
#include <unistd.h>

#include "Fatal.h"
#include "LocalServiceRegistry.h"
#include "RemoteServices.h"

namespace korvanta::hardware::camera::desktop::V2_0 {

using android::sp;
using vel::host::LocalServiceRegistry;

namespace {
constexpr useconds_t kLookUpPauseUs = 50'000;
}

sp<ICameraDesktop> ICameraDesktop::tryGetService(const std::string& serviceName, bool getStub) {
    if (getStub) vel::host::fatal("passthrough services are not available on a workstation");
    sp<ICameraDesktop> local = LocalServiceRegistry::instance().find(serviceName);
    return local != nullptr ? local : vel::dbus_transport::findDesktopService(serviceName);
}

sp<ICameraDesktop> ICameraDesktop::getService(const std::string& serviceName, bool getStub) {
    sp<ICameraDesktop> service = tryGetService(serviceName, getStub);
    if (service != nullptr) return service;
    __android_log_print(ANDROID_LOG_INFO, "hidl", "waiting for %s/%s", descriptor, serviceName.c_str());
    while (service == nullptr) {
        usleep(kLookUpPauseUs);
        service = tryGetService(serviceName, getStub);
    }
    return service;
}

}  // namespace korvanta::hardware::camera::desktop::V2_0
