#include "VelChiDesktopHelper.h"

#include <gui/IGraphicBufferProducer.h>
#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>
#include <ui/GraphicBuffer.h>

#include "CamDesktopCallback.h"
#include "HelperLifetime.h"
#include "HelperLog.h"
#include "MetadataHandler.h"

namespace {

constexpr char kRefusedPackage[] = "com.korvanta.camera";
constexpr size_t kRefusedPackageLength = sizeof(kRefusedPackage) - 1;
constexpr uint32_t kMainCameraId = 0;
constexpr uint32_t kMainCameraOverrideId = 4;  // what desktop mode shows in place of the main camera

}  // namespace

const uint32_t VelChiDesktopHelper::INVALID_CAMERA_ID;

VelChiDesktopHelper* VelChiDesktopHelper::getInstance() {
    static VelChiDesktopHelper instance;
    return &instance;
}

VelChiDesktopHelper::VelChiDesktopHelper()
    : mCallback(new CamDesktopCallback(this)), mMetadataHandler(new MetadataHandler()) {
    helper_lifetime::begin(this);
    VEL_LOGD("Calling constructor %s", "VelChiDesktopHelper");
    fillDesktopSettings();
    connectToServiceLocked();
    setImgSubSurface(nullptr);
}

VelChiDesktopHelper::~VelChiDesktopHelper() {
    helper_lifetime::end(this);
    VEL_LOGD("Calling destructor %s", "~VelChiDesktopHelper");
    replaceImgSubHelper(nullptr);
    setImgSubSurface(nullptr);
}

void VelChiDesktopHelper::fillDesktopSettings() {
    for (uint32_t id = 0; id < kCameraCount; ++id) {
        DesktopSettings& settings = mDesktopSettings[id];
        settings = DesktopSettings();
        settings.defaultOverrideId = id == kMainCameraId ? kMainCameraOverrideId : id;
        settings.requiredOverrideId = settings.defaultOverrideId;
    }
}

bool VelChiDesktopHelper::isValidCameraId(uint32_t id) const {
    return id < kCameraCount;
}

bool VelChiDesktopHelper::isDesktopMode(uint32_t id, DesktopCamIdType type) {
    if (!isValidCameraId(id)) {
        VEL_LOGE("Invalid camera id %u", id);
        return false;
    }
    if (type != FWK_CAMERA_ID && type != OVERRIDE_CAMERA_ID) return false;

    std::lock_guard<std::mutex> lock(mSettingsLock);
    const uint32_t fwkId = type == FWK_CAMERA_ID ? id : getOriginalFwkIdLocked(id);
    return isValidCameraId(fwkId) && mDesktopSettings[fwkId].isDesktop;
}

uint32_t VelChiDesktopHelper::getOriginalFwkIdLocked(uint32_t overrideId) const {
    if (!isValidCameraId(overrideId)) {
        VEL_LOGE("%s:%d Invalid camera id %u", "getOriginalFwkIdLocked", __LINE__, overrideId);
        return INVALID_CAMERA_ID;
    }
    for (uint32_t fwkId = 0; fwkId < kCameraCount; ++fwkId) {
        if (mDesktopSettings[fwkId].currentOverrideId == overrideId) return fwkId;
    }
    return INVALID_CAMERA_ID;
}

uint32_t VelChiDesktopHelper::getCurrentOverrideIdLocked(uint32_t fwkId) const {
    if (isValidCameraId(fwkId) && isValidCameraId(mDesktopSettings[fwkId].currentOverrideId)) {
        return mDesktopSettings[fwkId].currentOverrideId;
    }
    VEL_LOGE("%s: Invalid framework id %u", "getCurrentOverrideIdLocked", fwkId);
    return INVALID_CAMERA_ID;
}

uint32_t VelChiDesktopHelper::getCurrentOverrideId(uint32_t fwkId) {
    std::lock_guard<std::mutex> lock(mSettingsLock);
    const uint32_t overrideId = getCurrentOverrideIdLocked(fwkId);
    return isValidCameraId(overrideId) ? overrideId : fwkId;
}

uint32_t VelChiDesktopHelper::getOriginalCameraId(uint32_t overrideId) {
    std::lock_guard<std::mutex> lock(mSettingsLock);
    const uint32_t fwkId = getOriginalFwkIdLocked(overrideId);
    return isValidCameraId(fwkId) ? fwkId : overrideId;
}

bool VelChiDesktopHelper::isCameraInOverride(uint32_t overrideId) {
    std::lock_guard<std::mutex> lock(mSettingsLock);
    const uint32_t fwkId = getOriginalFwkIdLocked(overrideId);
    return isValidCameraId(fwkId) && fwkId != overrideId;
}

bool VelChiDesktopHelper::needsCameraIdSwitch(uint32_t overrideId, uint32_t& fwkId) {
    std::lock_guard<std::mutex> lock(mSettingsLock);
    fwkId = getOriginalFwkIdLocked(overrideId);
    if (!isValidCameraId(fwkId) || !mDesktopSettings[fwkId].overrideAllowed) {
        VEL_LOGE("%s: Invalid override id %u", "needsCameraIdSwitch", overrideId);
        return false;
    }
    DesktopSettings& settings = mDesktopSettings[fwkId];
    if (!isValidCameraId(settings.requiredOverrideId) || settings.requiredOverrideId == overrideId)
        return false;
    settings.restartPending = true;
    return true;
}

bool VelChiDesktopHelper::isOverrideAllowedForPackage(const std::string& packageName) {
    return packageName.compare(0, kRefusedPackageLength, kRefusedPackage) != 0;
}

void VelChiDesktopHelper::setVendorTagCallback(VendorTagCallback callback) {
    mMetadataHandler->setVendorTagCallback(std::move(callback));
}
