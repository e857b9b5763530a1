#include <android/log.h>
#include <hidl/Status.h>

#include <atomic>

#include "Fatal.h"

namespace android::hardware {

namespace {
std::atomic<HidlReturnRestriction> gRestriction{HidlReturnRestriction::NONE};
}

Status Status::fromExceptionCode(int32_t exceptionCode, const char* message) {
    Status status;
    status.setException(exceptionCode, message);
    return status;
}

Status Status::fromStatusT(status_t error) {
    Status status;
    status.setFromStatusT(error);
    return status;
}

void Status::setException(int32_t exceptionCode, const char* message) {
    mException = exceptionCode;
    mErrorCode = exceptionCode == EX_TRANSACTION_FAILED ? FAILED_TRANSACTION : OK;
    mMessage = message != nullptr ? message : "";
}

void Status::setFromStatusT(status_t status) {
    mException = status == OK ? EX_NONE : EX_TRANSACTION_FAILED;
    mErrorCode = status;
    mMessage.clear();
}

std::string Status::description() const {
    if (isOk()) return "Status(EX_NONE)";
    const int32_t code = mException == EX_TRANSACTION_FAILED ? mErrorCode : mException;
    const char* kind =
        mException == EX_TRANSACTION_FAILED ? "Status(EX_TRANSACTION_FAILED, " : "Status(exception, ";
    return kind + std::to_string(code) + "): '" + mMessage + "'";
}

void setProcessHidlReturnRestriction(HidlReturnRestriction restriction) {
    gRestriction = restriction;
}

namespace details {

return_status::return_status(return_status&& other) noexcept
    : mStatus(std::move(other.mStatus)), mChecked(std::exchange(other.mChecked, true)) {}

return_status& return_status::operator=(return_status&& other) noexcept {
    if (this == &other) return *this;
    checkDuty();
    mStatus = std::move(other.mStatus);
    mChecked = std::exchange(other.mChecked, true);
    return *this;
}

return_status::~return_status() {
    checkDuty();
}

void return_status::checkDuty() const {
    if (mChecked) return;
    if (!mStatus.isOk()) vel::host::fatal("a failed Return was not checked: " + description());
    switch (gRestriction) {
        case HidlReturnRestriction::NONE:
            return;
        case HidlReturnRestriction::ERROR_IF_UNCHECKED:
            __android_log_write(ANDROID_LOG_ERROR, "hidl", "a Return was not checked");
            return;
        case HidlReturnRestriction::FATAL_IF_UNCHECKED:
            vel::host::fatal("a Return was not checked");
    }
}

void return_status::assertOk() const {
    if (!isOk()) vel::host::fatal("a Return should be OK: " + description());
}

void return_status::assertHasValue() const {
    if (!isOk()) vel::host::fatal("a failed Return has no value: " + description());
}

bool return_status::isDeadObject() const {
    const bool dead = mStatus.transactionError() == DEAD_OBJECT;
    if (dead) mChecked = true;
    return dead;
}

}  // namespace details

}  // namespace android::hardware
