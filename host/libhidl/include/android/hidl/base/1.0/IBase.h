#pragma once

#include <android/hidl/base/1.0/types.h>
#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <utils/RefBase.h>

#include <cstdint>
#include <functional>

#pragma GCC visibility push(default)

namespace android::hidl::base::V1_0 {

/**
 * Root of every interface. The operations stand in the order of the virtual table. The ones defined here are
 * those of a local object; a proxy overrides them.
 */
struct IBase : virtual public ::android::RefBase {
    static const char* descriptor;

    /** False for an object of this process, true for a proxy. */
    virtual bool isRemote() const;

    using interfaceChain_cb = std::function<void(
        const ::android::hardware::hidl_vec<::android::hardware::hidl_string>& descriptors)>;
    /**
     * Descriptors of the interface and its parents, the most derived first. Every operation that takes a
     * reply function fails with EX_ILLEGAL_ARGUMENT when it is empty.
     */
    virtual ::android::hardware::Return<void> interfaceChain(interfaceChain_cb _hidl_cb);

    virtual ::android::hardware::Return<void> debug(
        const ::android::hardware::hidl_handle& fd,
        const ::android::hardware::hidl_vec<::android::hardware::hidl_string>& options);

    using interfaceDescriptor_cb = std::function<void(const ::android::hardware::hidl_string& descriptor)>;
    virtual ::android::hardware::Return<void> interfaceDescriptor(interfaceDescriptor_cb _hidl_cb);

    using getHashChain_cb = std::function<void(
        const ::android::hardware::hidl_vec<::android::hardware::hidl_array<uint8_t, 32>>& hashchain)>;
    /** Absent: aborts. */
    virtual ::android::hardware::Return<void> getHashChain(getHashChain_cb _hidl_cb);

    virtual ::android::hardware::Return<void> setHALInstrumentation();

    /**
     * On a proxy: keeps a weak pointer to `recipient` until the proxy is destroyed. False only when the proxy
     * has told of its peer's death already; when the peer is dead otherwise, `recipient` is told at once.
     * Null is accepted. On a local object: whether `recipient` is non-null; it is never called.
     */
    virtual ::android::hardware::Return<bool> linkToDeath(
        const ::android::sp<::android::hardware::hidl_death_recipient>& recipient, uint64_t cookie);

    virtual ::android::hardware::Return<void> ping();

    using getDebugInfo_cb = std::function<void(const DebugInfo& info)>;
    virtual ::android::hardware::Return<void> getDebugInfo(getDebugInfo_cb _hidl_cb);

    virtual ::android::hardware::Return<void> notifySyspropsChanged();

    /** Removes the newest registration of `recipient`: false when there is none, or it has been told. */
    virtual ::android::hardware::Return<bool> unlinkToDeath(
        const ::android::sp<::android::hardware::hidl_death_recipient>& recipient);

    static ::android::hardware::Return<::android::sp<IBase>> castFrom(const ::android::sp<IBase>& parent,
                                                                      bool emitError = false);
};

}  // namespace android::hidl::base::V1_0

#pragma GCC visibility pop
