#include <korvanta/hardware/camera/desktop/1.0/ICameraDesktopCallback.h>

#include "BaseOperations.h"

namespace korvanta::hardware::camera::desktop::V1_0 {

using android::sp;
using android::hardware::Return;
using android::hidl::base::V1_0::IBase;

const char* ICameraDesktopCallback::descriptor =
    "korvanta.hardware.camera.desktop@1.0::ICameraDesktopCallback";

VEL_DEFINE_BASE_OPERATIONS(ICameraDesktopCallback)

Return<sp<ICameraDesktopCallback>> ICameraDesktopCallback::castFrom(const sp<ICameraDesktopCallback>& parent,
                                                                    bool) {
    return parent;
}

Return<sp<ICameraDesktopCallback>> ICameraDesktopCallback::castFrom(const sp<IBase>& parent, bool emitError) {
    return vel::host::castByChain<ICameraDesktopCallback>(parent, emitError);
}

}  // namespace korvanta::hardware::camera::desktop::V1_0
