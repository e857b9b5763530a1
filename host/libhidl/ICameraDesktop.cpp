#include <android/log.h>
#include <hidl_host/RemoteServices.h>
#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>
#include <unistd.h>

#include "BaseOperations.h"
#include "Fatal.h"
#include "LocalServiceRegistry.h"

namespace korvanta::hardware::camera::desktop::V2_0 {

using ::android::sp;
using ::android::hardware::Return;
using ::android::hidl::base::V1_0::IBase;
using ::vel::host::LocalServiceRegistry;

namespace {
constexpr useconds_t kLookUpPauseUs = 50'000;
}

const char* ICameraDesktop::descriptor = "korvanta.hardware.camera.desktop@2.0::ICameraDesktop";

VEL_DEFINE_BASE_OPERATIONS(ICameraDesktop)

Return<sp<ICameraDesktop>> ICameraDesktop::castFrom(const sp<ICameraDesktop>& parent, bool) {
    return parent;
}

Return<sp<ICameraDesktop>> ICameraDesktop::castFrom(const sp<IBase>& parent, bool emitError) {
    return vel::host::castByChain<ICameraDesktop>(parent, emitError);
}

sp<ICameraDesktop> ICameraDesktop::tryGetService(const std::string& serviceName, bool getStub) {
    if (getStub) vel::host::fatal("passthrough services are not available on a workstation");
    sp<ICameraDesktop> local = LocalServiceRegistry::instance().find(serviceName);
    return local != nullptr ? local : vel::host::findRemoteDesktopService(serviceName);
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

::android::status_t ICameraDesktop::registerAsService(const std::string& serviceName) {
    return LocalServiceRegistry::instance().add(serviceName, this);
}

bool ICameraDesktop::registerForNotifications(
    const std::string&, const sp<::android::hidl::manager::V1_0::IServiceNotification>&) {
    vel::host::fatal("registration notices are not available on a workstation");
}

}  // namespace korvanta::hardware::camera::desktop::V2_0
