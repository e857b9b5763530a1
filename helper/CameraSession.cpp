#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>

#include "DetachedThread.h"
#include "HelperLifetime.h"
#include "HelperLog.h"
#include "JsonMessage.h"
#include "ProtocolKeys.h"
#include "VelChiDesktopHelper.h"

using android::JsonMessage;
using rapidjson::Value;

void VelChiDesktopHelper::updateCameraIdOnHalOpen(uint32_t& cameraId) {
    const uint32_t fwkId = cameraId;
    if (!isValidCameraId(fwkId)) {
        VEL_LOGE("%s: Invalid camera id %u", "updateCameraIdOnHalOpen", fwkId);
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
        VEL_LOGE("%s:%d Invalid camera id %u", "onHalClose", __LINE__, cameraId);
        return;
    }
    bool wasDesktop = false;
    std::unique_lock<std::mutex> serviceLock(mServiceLock, std::defer_lock);
    {
        std::lock_guard<std::mutex> settingsLock(mSettingsLock);
        DesktopSettings& settings = mDesktopSettings[cameraId];
        wasDesktop = settings.isDesktop;
        settings.currentOverrideId = INVALID_CAMERA_ID;
        settings.requiredOverrideId = settings.defaultOverrideId;
        settings.restartPending = false;
        // Not waited for: a peer that hangs in a command holds the link, and must not hold up a close. The
        // teardown then goes without it, as that of a new configuration does.
        (void)serviceLock.try_lock();
    }
    if (wasDesktop && replaceImgSubHelper(nullptr)) setImgSubSurface(nullptr);
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
    JSON_UNCLEARED JsonMessage message;
    auto& allocator = message.allocator();
    // Text here and a number in the restart notice: each peer reads the form that it is used to.
    const std::string idText = std::to_string(fwkId);
    Value restart(rapidjson::kObjectType);
    restart.AddMember(Value(keys::kCameraId), Value(idText.c_str(), allocator), allocator);
    message.root().AddMember(Value(keys::kRestartNeeded), restart, allocator);

    const std::string reply = setCommandTo(ClientType::CLIENT_CAMERA_SERVICE, message.toText());
    VEL_LOGD("%s: CameraService replied %s", "triggerSessionRestart", reply.c_str());
}

void VelChiDesktopHelper::sendSessionRestartDoneToApp(uint32_t originalId, uint32_t overrideId) {
    JSON_UNCLEARED JsonMessage message;
    auto& allocator = message.allocator();
    Value event(rapidjson::kObjectType);
    event.AddMember(Value(keys::kType), Value(keys::kSessionRestartDone), allocator);
    Value ids(rapidjson::kObjectType);
    ids.AddMember(Value(keys::kOriginalId), Value(originalId), allocator);
    ids.AddMember(Value(keys::kOverrideId), Value(overrideId), allocator);
    message.root().AddMember(Value(keys::kEvent), event, allocator);
    message.root().AddMember(Value(keys::kCameraIds), ids, allocator);

    const std::string reply = setCommandTo(ClientType::CLIENT_APP, message.toText());
    VEL_LOGD("%s: App replied %s", "sendSessionRestartDoneToApp", reply.c_str());
}
