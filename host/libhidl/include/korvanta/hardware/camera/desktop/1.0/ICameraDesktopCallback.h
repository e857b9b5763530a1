#pragma once

#include <android/hidl/base/1.0/IBase.h>

#include <functional>

#pragma GCC visibility push(default)

namespace korvanta::hardware::camera::desktop::V1_0 {

/** A client's end of the desktop service: takes the commands that the peers send to it. */
struct ICameraDesktopCallback : public ::android::hidl::base::V1_0::IBase {
    static const char* descriptor;

    virtual bool isRemote() const override;

    using onCommand_cb = std::function<void(const ::android::hardware::hidl_string& reply)>;
    /** Handles one JSON command. The implementation calls `_hidl_cb` exactly once before it returns. */
    virtual ::android::hardware::Return<void> onCommand(const ::android::hardware::hidl_string& command,
                                                        onCommand_cb _hidl_cb) = 0;

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
    static ::android::hardware::Return<::android::sp<ICameraDesktopCallback>> castFrom(
        const ::android::sp<ICameraDesktopCallback>& parent, bool emitError = false);
    static ::android::hardware::Return<::android::sp<ICameraDesktopCallback>> castFrom(
        const ::android::sp<::android::hidl::base::V1_0::IBase>& parent, bool emitError = false);
};

}  // namespace korvanta::hardware::camera::desktop::V1_0

#pragma GCC visibility pop
