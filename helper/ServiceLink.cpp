#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>
#include <unistd.h>

#include "CamDesktopCallback.h"
#include "DesktopHelperLink.h"
#include "DetachedThread.h"
#include "HelperLifetime.h"
#include "HelperLog.h"
#include "NeverDestroyed.h"
#include "VelChiDesktopHelper.h"

using android::sp;
using android::hardware::hidl_death_recipient;
using android::hardware::hidl_string;
using android::hardware::Return;

namespace {

constexpr int kReconnectAttempts = 3;
constexpr useconds_t kReconnectPauseUs = 500 * 1000;

// Makes copying and replacing mCameraDesktop safe where mServiceLock cannot be had: a command that arrives
// inside an outgoing call must not wait for the lock that this call holds. A leaf, never held over a call.
android::NeverDestroyed<std::mutex> gProxyLock;

}  // namespace

void VelChiDesktopHelper::setServiceProxy(const sp<ICameraDesktop>& proxy) {
    sp<ICameraDesktop> old = proxy;
    {
        std::lock_guard<std::mutex> lock(gProxyLock.get());
        std::swap(old, mCameraDesktop);
    }
    // The old proxy goes here, outside the lock: its last reference may run platform code.
}

sp<VelChiDesktopHelper::ICameraDesktop> VelChiDesktopHelper::serviceProxy() const {
    std::lock_guard<std::mutex> lock(gProxyLock.get());
    return mCameraDesktop;
}

bool VelChiDesktopHelper::connectToServiceLocked() {
    if (mCameraDesktop != nullptr) return true;

    VEL_LOGD("Trying to get service");
    const sp<ICameraDesktop> service = ICameraDesktop::tryGetService("default", false);
    setServiceProxy(service);
    if (service != nullptr) {
        // A service that dies under these calls is found out by the next command, so the results are only
        // marked as seen: the platform ends a process that drops a failed one unseen.
        (void)service->registerCallback(ClientType::CLIENT_CAMERA_HAL, mCallback).isOk();
        (void)service->linkToDeath(sp<hidl_death_recipient>(mCallback), 0).isOk();
    }
    VEL_LOGD("Got service for camera desktop %p", static_cast<void*>(service.get()));
    return service != nullptr;
}

void VelChiDesktopHelper::disconnectFromServiceLocked() {
    if (mCameraDesktop != nullptr) {
        (void)mCameraDesktop->unlinkToDeath(sp<hidl_death_recipient>(mCallback)).isOk();
    }
    setServiceProxy(nullptr);
}

void VelChiDesktopHelper::handleDeathNotification() {
    VEL_LOGD("Service death, disconnect");
    std::lock_guard<std::mutex> lock(mServiceLock);
    const helper_lifetime::Visit visit(this);
    if (!visit) return;
    setServiceProxy(nullptr);
    detached_thread::start("the reconnection", [this] { reconnectToService(); });
}

void VelChiDesktopHelper::reconnectToService() {
    for (int attempt = 0; attempt < kReconnectAttempts; ++attempt) {
        usleep(kReconnectPauseUs);
        const helper_lifetime::Visit beforeTheWait(this);
        if (!beforeTheWait) return;
        std::lock_guard<std::mutex> lock(mServiceLock);
        const helper_lifetime::Visit visit(this);
        if (!visit || connectToServiceLocked()) return;
    }
}

std::string VelChiDesktopHelper::setCommandTo(ClientType type, const std::string& command) {
    std::string reply;
    std::lock_guard<std::mutex> lock(mServiceLock);
    const helper_lifetime::Visit visit(this);
    if (!visit) return reply;
    if (!connectToServiceLocked()) {
        VEL_LOGE("Service not available");
        return reply;
    }
    // A reference of our own: at process exit the member may go while this call is under way.
    const sp<ICameraDesktop> service = mCameraDesktop;
    hidl_string text;
    text.setToExternal(command.data(), command.size());
    const Return<void> result = service->sendCommand(
        type, text, [&reply](const hidl_string& answer) { reply.assign(answer.c_str(), answer.size()); });
    if (!result.isOk()) {
        VEL_LOGE("%s: Failed during binder call, isDead %d", "setCommandTo", result.isDeadObject());
    }
    return reply;
}

sp<VelChiDesktopHelper::HidlProducer> VelChiDesktopHelper::getSurface(ClientType type) {
    std::lock_guard<std::mutex> lock(mServiceLock);
    const helper_lifetime::Visit visit(this);
    if (!visit) return nullptr;
    if (!connectToServiceLocked()) {
        VEL_LOGE("Service not available");
        return nullptr;
    }
    const sp<ICameraDesktop> service = mCameraDesktop;
    return service->getSurface(type).withDefault(nullptr);
}

sp<VelChiDesktopHelper::HidlProducer> desktop_helper_link::fetchImgSubSurface(VelChiDesktopHelper& helper) {
    return helper.getSurface(VelChiDesktopHelper::ClientType::CLIENT_IMG_SUB);
}
