#pragma once

#include <android/hardware/graphics/bufferqueue/1.0/IGraphicBufferProducer.h>
#include <android/hidl/base/1.0/IBase.h>
#include <korvanta/hardware/camera/desktop/1.0/ICameraDesktopCallback.h>
#include <korvanta/hardware/camera/desktop/2.0/types.h>

#include <functional>
#include <string>

#pragma GCC visibility push(default)

namespace android::hidl::manager::V1_0 {
struct IServiceNotification;
}

namespace korvanta::hardware::camera::desktop::V2_0 {

/** The desktop service: passes commands and surfaces between its clients. */
struct ICameraDesktop : public ::android::hidl::base::V1_0::IBase {
    static const char* descriptor;

    virtual bool isRemote() const override;

    /** Four operations of the service's own, which the camera HAL never calls. */
    virtual ::android::hardware::Return<void> reserved1() = 0;
    virtual ::android::hardware::Return<void> reserved2() = 0;
    virtual ::android::hardware::Return<void> reserved3() = 0;
    virtual ::android::hardware::Return<void> reserved4() = 0;

    /** Makes `callback` the receiver of the commands for `type`; null removes it. */
    virtual ::android::hardware::Return<void> registerCallback(
        ::korvanta::hardware::camera::desktop::V2_0::ClientType type,
        const ::android::sp<::korvanta::hardware::camera::desktop::V1_0::ICameraDesktopCallback>&
            callback) = 0;

    using sendCommand_cb = std::function<void(const ::android::hardware::hidl_string& reply)>;
    /**
     * Passes `command` to the client `type` and waits for its reply. The implementation calls `_hidl_cb`
     * exactly once before it returns.
     */
    virtual ::android::hardware::Return<void> sendCommand(
        ::korvanta::hardware::camera::desktop::V2_0::ClientType type,
        const ::android::hardware::hidl_string& command, sendCommand_cb _hidl_cb) = 0;

    /** Sets the surface of `type`; null removes it. */
    virtual ::android::hardware::Return<void> setSurface(
        ::korvanta::hardware::camera::desktop::V2_0::ClientType type,
        const ::android::sp<::android::hardware::graphics::bufferqueue::V1_0::IGraphicBufferProducer>&
            producer) = 0;

    /** The surface of `type`, null when there is none. */
    virtual ::android::hardware::Return<
        ::android::sp<::android::hardware::graphics::bufferqueue::V1_0::IGraphicBufferProducer>>
    getSurface(::korvanta::hardware::camera::desktop::V2_0::ClientType type) = 0;

    virtual ::android::hardware::Return<void> interfaceChain(interfaceChain_cb _hidl_cb) override;
    virtual ::android::hardware::Return<void> debug(
        const ::android::hardware::hidl_handle& fd,
        const ::android::hardware::hidl_vec<::android::hardware::hidl_string>& options) override;
    virtual ::android::hardware::Return<void> interfaceDescriptor(interfaceDescriptor_cb _hidl_cb) override;
    virtual ::android::hardware::Return<void> getHashChain(getHashChain_cb _hidl_cb) override;
    virtual ::android::hardware::Return<void> setHALInstrumentation() override;
    virtual ::android::hardware::Return<bool> linkToDeath(
        const ::android::sp<::android::hardware::hidl_death_recipient>& recipient, uint64_t cookie) override;
    virtual ::android::hardware::Return<void> ping() override;
    virtual ::android::hardware::Return<void> getDebugInfo(getDebugInfo_cb _hidl_cb) override;
    virtual ::android::hardware::Return<void> notifySyspropsChanged() override;
    virtual ::android::hardware::Return<bool> unlinkToDeath(
        const ::android::sp<::android::hardware::hidl_death_recipient>& recipient) override;

    /**
     * `parent` as this interface when its interface chain has it, otherwise null; with `emitError` a failed
     * question is passed on.
     */
    static ::android::hardware::Return<::android::sp<ICameraDesktop>> castFrom(
        const ::android::sp<ICameraDesktop>& parent, bool emitError = false);
    static ::android::hardware::Return<::android::sp<ICameraDesktop>> castFrom(
        const ::android::sp<::android::hidl::base::V1_0::IBase>& parent, bool emitError = false);

    /**
     * A new proxy of the service registered as `serviceName`, in this process or another; null when there is
     * none. Never waits for the service. `getStub` true is absent: aborts.
     */
    static ::android::sp<ICameraDesktop> tryGetService(const std::string& serviceName = "default",
                                                       bool getStub = false);
    static ::android::sp<ICameraDesktop> tryGetService(const char serviceName[], bool getStub = false) {
        return tryGetService(std::string(serviceName != nullptr ? serviceName : ""), getStub);
    }
    static ::android::sp<ICameraDesktop> tryGetService(const ::android::hardware::hidl_string& serviceName,
                                                       bool getStub = false) {
        return tryGetService(std::string(serviceName), getStub);
    }
    static ::android::sp<ICameraDesktop> tryGetService(bool getStub) {
        return tryGetService(std::string("default"), getStub);
    }

    /** As tryGetService(), but waits, without limit, until the service is there. */
    static ::android::sp<ICameraDesktop> getService(const std::string& serviceName = "default",
                                                    bool getStub = false);
    static ::android::sp<ICameraDesktop> getService(const char serviceName[], bool getStub = false) {
        return getService(std::string(serviceName != nullptr ? serviceName : ""), getStub);
    }
    static ::android::sp<ICameraDesktop> getService(const ::android::hardware::hidl_string& serviceName,
                                                    bool getStub = false) {
        return getService(std::string(serviceName), getStub);
    }
    static ::android::sp<ICameraDesktop> getService(bool getStub) {
        return getService(std::string("default"), getStub);
    }

    /**
     * Registers this object for look-ups in this process, in place of an earlier one of that name. OK, or
     * UNKNOWN_ERROR when refused.
     */
    __attribute__((warn_unused_result)) ::android::status_t registerAsService(
        const std::string& serviceName = "default");

    /** Absent: aborts. */
    static bool registerForNotifications(
        const std::string& serviceName,
        const ::android::sp<::android::hidl::manager::V1_0::IServiceNotification>& notification);
};

}  // namespace korvanta::hardware::camera::desktop::V2_0

#pragma GCC visibility pop
