#pragma once

#include <android/hidl/base/1.0/IBase.h>

// Defines the base operations of a local object of interface CLASS, whose parent is IBase. Used once per
// interface, inside the interface's namespace.
#define VEL_DEFINE_BASE_OPERATIONS(CLASS)                                                         \
    bool CLASS::isRemote() const {                                                                \
        return IBase::isRemote();                                                                 \
    }                                                                                             \
    android::hardware::Return<void> CLASS::interfaceChain(interfaceChain_cb _hidl_cb) {           \
        if (_hidl_cb == nullptr) return vel::host::nullReplyFunction();                           \
        _hidl_cb({CLASS::descriptor, android::hidl::base::V1_0::IBase::descriptor});              \
        return android::hardware::Void();                                                         \
    }                                                                                             \
    android::hardware::Return<void> CLASS::debug(                                                 \
        const android::hardware::hidl_handle& fd,                                                 \
        const android::hardware::hidl_vec<android::hardware::hidl_string>& options) {             \
        return IBase::debug(fd, options);                                                         \
    }                                                                                             \
    android::hardware::Return<void> CLASS::interfaceDescriptor(interfaceDescriptor_cb _hidl_cb) { \
        if (_hidl_cb == nullptr) return vel::host::nullReplyFunction();                           \
        _hidl_cb(CLASS::descriptor);                                                              \
        return android::hardware::Void();                                                         \
    }                                                                                             \
    android::hardware::Return<void> CLASS::getHashChain(getHashChain_cb _hidl_cb) {               \
        return IBase::getHashChain(_hidl_cb);                                                     \
    }                                                                                             \
    android::hardware::Return<void> CLASS::setHALInstrumentation() {                              \
        return IBase::setHALInstrumentation();                                                    \
    }                                                                                             \
    android::hardware::Return<bool> CLASS::linkToDeath(                                           \
        const android::sp<android::hardware::hidl_death_recipient>& recipient, uint64_t cookie) { \
        return IBase::linkToDeath(recipient, cookie);                                             \
    }                                                                                             \
    android::hardware::Return<void> CLASS::ping() {                                               \
        return IBase::ping();                                                                     \
    }                                                                                             \
    android::hardware::Return<void> CLASS::getDebugInfo(getDebugInfo_cb _hidl_cb) {               \
        return IBase::getDebugInfo(_hidl_cb);                                                     \
    }                                                                                             \
    android::hardware::Return<void> CLASS::notifySyspropsChanged() {                              \
        return IBase::notifySyspropsChanged();                                                    \
    }                                                                                             \
    android::hardware::Return<bool> CLASS::unlinkToDeath(                                         \
        const android::sp<android::hardware::hidl_death_recipient>& recipient) {                  \
        return IBase::unlinkToDeath(recipient);                                                   \
    }

namespace vel::host {

/** What a call with an empty reply function returns. */
inline android::hardware::Status nullReplyFunction() {
    return android::hardware::Status::fromExceptionCode(android::hardware::Status::EX_ILLEGAL_ARGUMENT,
                                                        "the reply function is empty");
}

/**
 * `parent` as `Interface` when its interface chain names it, else null. With `emitError` a failed question is
 * passed on. The cast is static: objects of the product carry no type information.
 */
template <typename Interface>
android::hardware::Return<android::sp<Interface>> castByChain(
    const android::sp<android::hidl::base::V1_0::IBase>& parent, bool emitError) {
    if (parent == nullptr) return nullptr;
    bool found = false;
    const auto search = [&found](const auto& descriptors) {
        for (const auto& descriptor : descriptors)
            found = found || descriptor == Interface::descriptor;
    };
    android::hardware::Return<void> asked = parent->interfaceChain(search);
    if (!asked.isOk()) {
        if (!emitError) return nullptr;
        return android::hardware::Status::fromStatusT(asked.isDeadObject() ? android::DEAD_OBJECT
                                                                           : android::UNKNOWN_ERROR);
    }
    if (!found) return nullptr;
    return static_cast<Interface*>(parent.get());
}

}  // namespace vel::host
