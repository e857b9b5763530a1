#pragma once

#include <gui/IGraphicBufferProducer.h>
#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>

#include <memory>

#include "MetadataHandler.h"
#include "VelChiDesktopHelper.h"

/** The one friend of VelChiDesktopHelper: lets a test build helpers of its own and look into them. */
struct DesktopHelperTestAccess {
    static std::unique_ptr<VelChiDesktopHelper> create() {
        return std::unique_ptr<VelChiDesktopHelper>(new VelChiDesktopHelper());
    }
    static VelChiDesktopHelper::DesktopSettings& settings(VelChiDesktopHelper& helper, uint32_t fwkId) {
        return helper.mDesktopSettings[fwkId];
    }
    static std::mutex& serviceLock(VelChiDesktopHelper& helper) { return helper.mServiceLock; }
    static std::mutex& settingsLock(VelChiDesktopHelper& helper) { return helper.mSettingsLock; }
    static void setProxy(VelChiDesktopHelper& helper,
                         const android::sp<VelChiDesktopHelper::ICameraDesktop>& proxy) {
        helper.setServiceProxy(proxy);
    }
    static bool isConnected(VelChiDesktopHelper& helper) { return helper.serviceProxy() != nullptr; }
    static auto& maxStreamSizes(VelChiDesktopHelper& helper) { return helper.mMaxStreamSizes; }
    static int32_t appSlot(VelChiDesktopHelper& helper) { return helper.mAppDequeuedSlot; }
    static bool hasAppProducer(VelChiDesktopHelper& helper) { return helper.mAppProducer != nullptr; }
};
