#pragma once

#include <utils/Errors.h>
#include <utils/StrongPointer.h>

#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>

#pragma GCC visibility push(default)

namespace android::hardware {

/** How a call ended: fine, with an exception code from the peer, or with a transport error. */
class Status final {
  public:
    enum Exception : int32_t {
        EX_NONE = 0,
        EX_SECURITY = -1,
        EX_BAD_PARCELABLE = -2,
        EX_ILLEGAL_ARGUMENT = -3,
        EX_NULL_POINTER = -4,
        EX_ILLEGAL_STATE = -5,
        EX_NETWORK_MAIN_THREAD = -6,
        EX_UNSUPPORTED_OPERATION = -7,
        EX_HAS_REPLY_HEADER = -128,
        EX_TRANSACTION_FAILED = -129,
    };

    static Status ok() { return {}; }
    static Status fromExceptionCode(int32_t exceptionCode) { return fromExceptionCode(exceptionCode, ""); }
    static Status fromExceptionCode(int32_t exceptionCode, const char* message);
    /** OK makes an OK status, any other value EX_TRANSACTION_FAILED with that error. */
    static Status fromStatusT(status_t status);

    Status() = default;

    void setException(int32_t exceptionCode, const char* message);
    void setFromStatusT(status_t status);

    int32_t exceptionCode() const { return mException; }
    const char* exceptionMessage() const { return mMessage.c_str(); }
    /** The transport error; OK unless the exception code is EX_TRANSACTION_FAILED. */
    status_t transactionError() const { return mException == EX_TRANSACTION_FAILED ? mErrorCode : OK; }
    bool isOk() const { return mException == EX_NONE; }
    /** For logs only. */
    std::string description() const;

  private:
    int32_t mException = EX_NONE;
    status_t mErrorCode = OK;
    std::string mMessage;
};

namespace details {

/**
 * The status of a Return and its duty: a failed one that is destroyed, or assigned over, before anybody
 * checked it aborts the process. A Return belongs to one thread.
 */
class return_status {
  public:
    /** Aborts unless OK; marks as checked. */
    void assertOk() const;
    /** Marks as checked. */
    bool isOk() const {
        mChecked = true;
        return mStatus.isOk();
    }
    /** Does not mark as checked. */
    bool isOkUnchecked() const { return mStatus.isOk(); }
    /** True only when the peer is gone, and only then marks as checked. */
    bool isDeadObject() const;
    /** Does not mark as checked. */
    std::string description() const { return mStatus.description(); }

    return_status(const return_status&) = delete;
    return_status& operator=(const return_status&) = delete;

  protected:
    return_status() = default;
    return_status(const Status& status) : mStatus(status) {}
    /** The duty to check moves along. */
    return_status(return_status&& other) noexcept;
    return_status& operator=(return_status&& other) noexcept;
    ~return_status();

    /** Aborts when there is no value to hand out, even if the failure was looked at before. */
    void assertHasValue() const;

  private:
    void checkDuty() const;

    Status mStatus;
    mutable bool mChecked = false;
};

}  // namespace details

/** What the runtime does with an OK Return that nobody checked. A failed one aborts in any case. */
enum class HidlReturnRestriction {
    NONE,
    ERROR_IF_UNCHECKED,
    FATAL_IF_UNCHECKED,
};

/** Thread-safe; the start value is NONE. */
void setProcessHidlReturnRestriction(HidlReturnRestriction restriction);

/** Result of a call that yields a scalar or an enumeration. */
template <typename T>
class [[nodiscard]] Return : public details::return_status {
  public:
    Return(T value) : mValue(value) {}
    Return(Status status) : return_status(status) {}
    Return(Return&&) noexcept = default;
    Return& operator=(Return&&) noexcept = default;

    /** Aborts when the call failed, also after isOk() said so. */
    operator T() const {
        assertHasValue();
        return mValue;
    }
    /** The value, or `fallback` when the call failed; marks as checked. */
    T withDefault(T fallback) { return isOk() ? mValue : fallback; }

  private:
    T mValue{};
};

/** Result of a call that yields an interface. */
template <typename T>
class [[nodiscard]] Return<sp<T>> : public details::return_status {
  public:
    Return(T* value) : mValue(value) {}
    template <typename U>
    Return(U* value) : mValue(value) {}
    Return(sp<T> value) : mValue(std::move(value)) {}
    template <typename U>
    Return(sp<U> value) : mValue(std::move(value)) {}
    Return(Status status) : return_status(status) {}
    Return(Return&&) noexcept = default;
    Return& operator=(Return&&) noexcept = default;

    /** Aborts when the call failed, also after isOk() said so. */
    operator sp<T>() const {
        assertHasValue();
        return mValue;
    }
    /** The value, or `fallback` when the call failed; marks as checked. */
    sp<T> withDefault(sp<T> fallback) { return isOk() ? mValue : fallback; }

  private:
    sp<T> mValue;
};

/** Result of a call that yields nothing, or hands its results to a reply function. */
template <>
class [[nodiscard]] Return<void> : public details::return_status {
  public:
    Return() = default;
    Return(const Status& status) : return_status(status) {}
    Return(Return&&) noexcept = default;
    Return& operator=(Return&&) noexcept = default;
};

static inline Return<void> Void() {
    return Return<void>();
}

}  // namespace android::hardware

#pragma GCC visibility pop
