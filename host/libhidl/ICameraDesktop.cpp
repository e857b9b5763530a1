#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>

#include "BaseOperations.h"
#include "Fatal.h"
#include "LocalServiceRegistry.h"

namespace korvanta::hardware::camera::desktop::V2_0 {

using android::sp;
using android::hardware::Return;
using android::hidl::base::V1_0::IBase;
using vel::host::LocalServiceRegistry;

const char* ICameraDesktop::descriptor = "korvanta.hardware.camera.desktop@2.0::ICameraDesktop";

VEL_DEFINE_BASE_OPERATIONS(ICameraDesktop)

Return<sp<ICameraDesktop>> ICameraDesktop::castFrom(const sp<ICameraDesktop>& parent, bool) {
    return parent;
}

Return<sp<ICameraDesktop>> ICameraDesktop::castFrom(const sp<IBase>& parent, bool emitError) {
    return vel::host::castByChain<ICameraDesktop>(parent, emitError);
}

android::status_t ICameraDesktop::registerAsService(const std::string& serviceName) {
    return LocalServiceRegistry::instance().add(serviceName, this);
}

bool ICameraDesktop::registerForNotifications(const std::string&,
                                              const sp<android::hidl::manager::V1_0::IServiceNotification>&) {
    vel::host::fatal("registration notices are not available on a workstation");
}

}  // namespace korvanta::hardware::camera::desktop::V2_0
