#pragma once

#include <android/hidl/base/1.0/IBase.h>

#pragma GCC visibility push(default)

namespace android::hardware::graphics::bufferqueue::V1_0 {

/** A producer's ear for buffers that the consumer releases. */
struct IProducerListener : public ::android::hidl::base::V1_0::IBase {
    static const char* descriptor;

    virtual bool isRemote() const override;

    virtual ::android::hardware::Return<void> onBufferReleased() = 0;
    virtual ::android::hardware::Return<bool> needsReleaseNotify() = 0;

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
};

}  // namespace android::hardware::graphics::bufferqueue::V1_0

#pragma GCC visibility pop
