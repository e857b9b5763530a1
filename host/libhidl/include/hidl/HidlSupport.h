#pragma once

#include <cutils/native_handle.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/StrongPointer.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#pragma GCC visibility push(default)

namespace android::hidl::base::V1_0 {
struct IBase;
}

namespace android::hardware {

namespace details {
/** Aborts when a message cannot carry that many bytes or elements. */
void checkLength(size_t length);
}  // namespace details

/**
 * Told of the death of a remote object. linkToDeath() keeps only a weak pointer to it, so the caller holds
 * it.
 */
struct hidl_death_recipient : public virtual RefBase {
    /**
     * Called once per registration, on a thread that made none of the calls on the dead object. `cookie` is
     * the registration's, `who` the proxy on which it was made.
     */
    virtual void serviceDied(uint64_t cookie, const wp<::android::hidl::base::V1_0::IBase>& who) = 0;
};

/**
 * A native handle in a message: borrowed when made from a pointer, owned when copied from another
 * hidl_handle. Copying duplicates the descriptors; a copy that fails (no descriptors left) aborts the
 * process.
 */
struct hidl_handle {
    hidl_handle() = default;
    /** Borrows `handle`: neither closed nor freed here. */
    hidl_handle(const native_handle_t* handle) : mHandle(handle) {}
    hidl_handle(const hidl_handle& other) { *this = other; }
    hidl_handle(hidl_handle&& other) noexcept { *this = std::move(other); }
    ~hidl_handle() { release(); }

    hidl_handle& operator=(const hidl_handle& other);
    hidl_handle& operator=(const native_handle_t* handle);
    hidl_handle& operator=(hidl_handle&& other) noexcept;

    /** Points at `handle`; with `shouldOwn` the descriptors are closed and the handle freed at the end. */
    void setTo(native_handle_t* handle, bool shouldOwn = false);

    const native_handle_t* operator->() const { return mHandle; }
    operator const native_handle_t*() const { return mHandle; }
    /** Borrowed; null for an empty handle. */
    const native_handle_t* getNativeHandle() const { return mHandle; }

  private:
    void release();

    const native_handle_t* mHandle = nullptr;
    bool mOwnsHandle = false;
};

/**
 * Text by length: NUL bytes inside survive copies, and c_str() is always terminated. Owns its bytes except
 * after setToExternal().
 */
struct hidl_string {
    hidl_string() = default;
    /** Null makes an empty string. */
    hidl_string(const char* text) : hidl_string(text, text != nullptr ? strlen(text) : 0) {}
    /** Copies `length` bytes. */
    hidl_string(const char* text, size_t length) { copyFrom(text, length); }
    hidl_string(const std::string& text) : hidl_string(text.data(), text.size()) {}
    hidl_string(const hidl_string& other) : hidl_string(other.c_str(), other.size()) {}
    hidl_string(hidl_string&& other) noexcept { moveFrom(std::move(other)); }
    ~hidl_string() { release(); }

    hidl_string& operator=(const hidl_string& other);
    hidl_string& operator=(const char* text);
    hidl_string& operator=(const std::string& text);
    hidl_string& operator=(hidl_string&& other) noexcept;

    operator std::string() const { return {mBuffer, mSize}; }

    const char* c_str() const { return mBuffer; }
    size_t size() const { return mSize; }
    bool empty() const { return mSize == 0; }
    void clear();

    /**
     * Points at `length` bytes of the caller's, which must outlive this object and be followed by a NUL;
     * aborts when they are not.
     */
    void setToExternal(const char* data, size_t length);

  private:
    void copyFrom(const char* text, size_t length);
    void moveFrom(hidl_string&& other) noexcept;
    void release();

    const char* mBuffer = "";
    uint32_t mSize = 0;
    bool mOwnsBuffer = false;
};

// Comparisons stop at the first NUL, unlike copies.
#define VEL_HIDL_STRING_OPERATOR(OP)                                      \
    inline bool operator OP(const hidl_string& a, const hidl_string& b) { \
        return strcmp(a.c_str(), b.c_str()) OP 0;                         \
    }                                                                     \
    inline bool operator OP(const hidl_string& a, const char* b) {        \
        return strcmp(a.c_str(), b) OP 0;                                 \
    }                                                                     \
    inline bool operator OP(const char* a, const hidl_string& b) {        \
        return strcmp(a, b.c_str()) OP 0;                                 \
    }
VEL_HIDL_STRING_OPERATOR(==)
VEL_HIDL_STRING_OPERATOR(!=)
VEL_HIDL_STRING_OPERATOR(<)
VEL_HIDL_STRING_OPERATOR(<=)
VEL_HIDL_STRING_OPERATOR(>)
VEL_HIDL_STRING_OPERATOR(>=)
#undef VEL_HIDL_STRING_OPERATOR

inline std::ostream& operator<<(std::ostream& out, const hidl_string& text) {
    return out << text.c_str();
}

/**
 * A sequence in a message, with at most UINT32_MAX elements. Owns its elements except after setToExternal().
 */
template <typename T>
struct hidl_vec {
    using value_type = T;
    using iterator = T*;
    using const_iterator = const T*;

    hidl_vec() = default;
    hidl_vec(size_t size) { resize(size); }
    hidl_vec(std::initializer_list<T> values) : hidl_vec(values.begin(), values.end()) {}
    hidl_vec(const std::vector<T>& values) : hidl_vec(values.begin(), values.end()) {}
    template <typename Iterator, typename = typename std::iterator_traits<Iterator>::iterator_category>
    hidl_vec(Iterator first, Iterator last) {
        resize(static_cast<size_t>(std::distance(first, last)));
        std::copy(first, last, begin());
    }
    hidl_vec(const hidl_vec& other) : hidl_vec(other.begin(), other.end()) {}
    hidl_vec(hidl_vec&& other) noexcept { *this = std::move(other); }
    ~hidl_vec() = default;

    hidl_vec& operator=(const hidl_vec& other) {
        if (this != &other) *this = hidl_vec(other);
        return *this;
    }
    /** `other` keeps its size and points at elements that are no longer its own: not to be used again. */
    hidl_vec& operator=(hidl_vec&& other) noexcept {
        mOwned = std::move(other.mOwned);
        mBuffer = other.mBuffer;
        mSize = other.mSize;
        return *this;
    }

    operator std::vector<T>() const { return {begin(), end()}; }

    size_t size() const { return mSize; }
    T* data() { return mBuffer; }
    const T* data() const { return mBuffer; }
    T& operator[](size_t index) { return mBuffer[index]; }
    const T& operator[](size_t index) const { return mBuffer[index]; }
    iterator begin() { return mBuffer; }
    iterator end() { return mBuffer + mSize; }
    const_iterator begin() const { return mBuffer; }
    const_iterator end() const { return mBuffer + mSize; }

    /**
     * Keeps the elements that fit, by moving them; new ones are value-initialised. Pointers to elements
     * become invalid.
     */
    void resize(size_t size) {
        details::checkLength(size);
        std::unique_ptr<T[]> grown = size ? std::make_unique<T[]>(size) : nullptr;
        std::move(mBuffer, mBuffer + std::min<size_t>(size, mSize), grown.get());
        mOwned = std::move(grown);
        mBuffer = mOwned.get();
        mSize = static_cast<uint32_t>(size);
    }

    /** Points at `size` elements of the caller's, which must outlive this object. */
    void setToExternal(T* data, size_t size) {
        details::checkLength(size);
        mOwned.reset();
        mBuffer = data;
        mSize = static_cast<uint32_t>(size);
    }

  private:
    std::unique_ptr<T[]> mOwned;
    T* mBuffer = nullptr;
    uint32_t mSize = 0;
};

template <typename T>
bool operator==(const hidl_vec<T>& a, const hidl_vec<T>& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end());
}
template <typename T>
bool operator!=(const hidl_vec<T>& a, const hidl_vec<T>& b) {
    return !(a == b);
}

/** A fixed sequence in a message; one dimension only. */
template <typename T, size_t SIZE>
struct hidl_array {
    hidl_array() = default;

    static constexpr size_t size() { return SIZE; }
    T* data() { return mBuffer.data(); }
    const T* data() const { return mBuffer.data(); }
    T& operator[](size_t index) { return mBuffer[index]; }
    const T& operator[](size_t index) const { return mBuffer[index]; }

  private:
    std::array<T, SIZE> mBuffer{};
};

template <typename T, size_t SIZE>
bool operator==(const hidl_array<T, SIZE>& a, const hidl_array<T, SIZE>& b) {
    return std::equal(a.data(), a.data() + SIZE, b.data());
}
template <typename T, size_t SIZE>
bool operator!=(const hidl_array<T, SIZE>& a, const hidl_array<T, SIZE>& b) {
    return !(a == b);
}

}  // namespace android::hardware

#pragma GCC visibility pop
