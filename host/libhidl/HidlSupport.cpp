#include <hidl/HidlSupport.h>

#include <algorithm>

#include "Fatal.h"

namespace android::hardware {

namespace details {

void checkLength(size_t length) {
    if (length > UINT32_MAX)
        vel::host::fatal("a message cannot carry " + std::to_string(length) + " elements");
}

}  // namespace details

hidl_handle& hidl_handle::operator=(const hidl_handle& other) {
    if (this == &other) return *this;
    release();
    if (other.mHandle == nullptr) return *this;
    mHandle = native_handle_clone(other.mHandle);
    if (mHandle == nullptr) vel::host::fatal("cannot duplicate the descriptors of a native handle");
    mOwnsHandle = true;
    return *this;
}

hidl_handle& hidl_handle::operator=(const native_handle_t* handle) {
    release();
    mHandle = handle;
    return *this;
}

hidl_handle& hidl_handle::operator=(hidl_handle&& other) noexcept {
    if (this == &other) return *this;
    release();
    mHandle = std::exchange(other.mHandle, nullptr);
    mOwnsHandle = std::exchange(other.mOwnsHandle, false);
    return *this;
}

void hidl_handle::setTo(native_handle_t* handle, bool shouldOwn) {
    release();
    mHandle = handle;
    mOwnsHandle = shouldOwn;
}

void hidl_handle::release() {
    const native_handle_t* handle = std::exchange(mHandle, nullptr);
    if (!std::exchange(mOwnsHandle, false) || handle == nullptr) return;
    native_handle_close(handle);
    native_handle_delete(const_cast<native_handle_t*>(handle));
}

hidl_string& hidl_string::operator=(const hidl_string& other) {
    if (this != &other) copyFrom(other.c_str(), other.size());
    return *this;
}

hidl_string& hidl_string::operator=(const char* text) {
    copyFrom(text, text != nullptr ? strlen(text) : 0);
    return *this;
}

hidl_string& hidl_string::operator=(const std::string& text) {
    copyFrom(text.data(), text.size());
    return *this;
}

hidl_string& hidl_string::operator=(hidl_string&& other) noexcept {
    if (this == &other) return *this;
    release();
    moveFrom(std::move(other));
    return *this;
}

void hidl_string::clear() {
    release();
}

void hidl_string::setToExternal(const char* data, size_t length) {
    details::checkLength(length);
    if (data[length] != '\0') vel::host::fatal("an external string is not terminated");
    release();
    mBuffer = data;
    mSize = static_cast<uint32_t>(length);
}

// The copy is made before the old bytes go: `text` may point into them.
void hidl_string::copyFrom(const char* text, size_t length) {
    details::checkLength(length);
    if (length == 0) return release();
    char* copy = new char[length + 1];
    std::copy_n(text, length, copy);
    copy[length] = '\0';
    release();
    mBuffer = copy;
    mSize = static_cast<uint32_t>(length);
    mOwnsBuffer = true;
}

void hidl_string::moveFrom(hidl_string&& other) noexcept {
    mBuffer = std::exchange(other.mBuffer, "");
    mSize = std::exchange(other.mSize, 0);
    mOwnsBuffer = std::exchange(other.mOwnsBuffer, false);
}

void hidl_string::release() {
    if (mOwnsBuffer) delete[] mBuffer;
    mBuffer = "";
    mSize = 0;
    mOwnsBuffer = false;
}

}  // namespace android::hardware
