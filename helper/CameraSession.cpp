#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>

#include "DetachedThread.h"
#include "HelperLifetime.h"
#include "HelperLog.h"
#include "JsonMessage.h"
#include "ProtocolKeys.h"
#include "VelChiDesktopHelper.h"

using rapidjson::Value;

void VelChiDesktopHelper::updateCameraIdOnHalOpen(uint32_t& cameraId) {
    const uint32_t fwkId = cameraId;
    if (!isValidCameraId(fwkId)) {
        HELPER_LOGE("%s: Invalid camera id %u", "updateCameraIdOnHalOpen", fwkId);
        return;
    }
    std::lock_guard<std::mutex> lock(mSettingsLock);
    DesktopSettings& settings = mDesktopSettings[fwkId];
    if (settings.overrideAllowed) cameraId = settings.requiredOverrideId;
    // The mark stays until the close: every further open announces the restart again.
    if (settings.restartPending) {
        detached_thread::start("the restart notice", [this, fwkId, overrideId = cameraId] {
            if (const helper_lifetime::Visit visit(this); visit)
                sendSessionRestartDoneToApp(fwkId, overrideId);
        });
    }
    settings.currentOverrideId = cameraId;
}

void VelChiDesktopHelper::onHalClose(uint32_t cameraId) {
    if (!isValidCameraId(cameraId)) {
        HELPER_LOGE("%s:%d Invalid camera id %u", "onHalClose", __LINE__, cameraId);
        return;
    }
    // The link may be held by a call whose peer first sends a command that needs the registry. Waiting for
    // the link with the registry locked would then never end, so the wait is without it. It is a turn in the
    // queue for the link, since captures may leave it free for moments only, which a pause would miss.
    while (!closeCameraIfLinkIsFree(cameraId)) {
        const std::lock_guard<std::mutex> turn(mServiceLock);
    }
}

bool VelChiDesktopHelper::closeCameraIfLinkIsFree(uint32_t cameraId) {
    std::lock_guard<std::mutex> settingsLock(mSettingsLock);
    std::unique_lock<std::mutex> serviceLock(mServiceLock, std::try_to_lock);
    if (!serviceLock.owns_lock()) return false;

    DesktopSettings& settings = mDesktopSettings[cameraId];
    settings.currentOverrideId = INVALID_CAMERA_ID;
    settings.requiredOverrideId = settings.defaultOverrideId;
    settings.restartPending = false;
    if (settings.isDesktop && replaceImgSubHelper(nullptr)) setImgSubSurface(nullptr);
    return true;
}

void VelChiDesktopHelper::setRequiredOverrideId(uint32_t fwkId, uint32_t overrideId) {
    if (!isValidCameraId(fwkId) || !isValidCameraId(overrideId)) return;

    std::lock_guard<std::mutex> lock(mSettingsLock);
    DesktopSettings& settings = mDesktopSettings[fwkId];
    if (!settings.overrideAllowed || overrideId == settings.requiredOverrideId) return;

    const bool isOpen = isValidCameraId(settings.currentOverrideId);
    if (isOpen && overrideId != settings.currentOverrideId) {
        detached_thread::start("the restart request", [this, fwkId] {
            if (const helper_lifetime::Visit visit(this); visit) triggerSessionRestart(fwkId);
        });
    }
    settings.requiredOverrideId = overrideId;
}

void VelChiDesktopHelper::triggerSessionRestart(uint32_t fwkId) {
    JsonMessage message;
    auto& allocator = message.allocator();
    // Text here and a number in the restart notice: each peer reads the form that it is used to.
    const std::string idText = std::to_string(fwkId);
    Value restart(rapidjson::kObjectType);
    restart.AddMember(Value(keys::kCameraId), Value(idText.c_str(), allocator), allocator);
    message.root().AddMember(Value(keys::kRestartNeeded), restart, allocator);

    const std::string reply = setCommandTo(ClientType::CLIENT_CAMERA_SERVICE, message.toText());
    HELPER_LOGD("%s: CameraService replied %s", "triggerSessionRestart", reply.c_str());
}

void VelChiDesktopHelper::sendSessionRestartDoneToApp(uint32_t originalId, uint32_t overrideId) {
    JsonMessage message;
    auto& allocator = message.allocator();
    Value event(rapidjson::kObjectType);
    event.AddMember(Value(keys::kType), Value(keys::kSessionRestartDone), allocator);
    Value ids(rapidjson::kObjectType);
    ids.AddMember(Value(keys::kOriginalId), Value(originalId), allocator);
    ids.AddMember(Value(keys::kOverrideId), Value(overrideId), allocator);
    message.root().AddMember(Value(keys::kEvent), event, allocator);
    message.root().AddMember(Value(keys::kCameraIds), ids, allocator);

    const std::string reply = setCommandTo(ClientType::CLIENT_APP, message.toText());
    HELPER_LOGD("%s: App replied %s", "sendSessionRestartDoneToApp", reply.c_str());
}
