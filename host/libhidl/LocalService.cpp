#include "LocalService.h"

#include <algorithm>
#include <utility>

namespace vel::host {

using android::sp;

LocalService::LocalService(std::string name, sp<ICameraDesktop> object)
    : mName(std::move(name)), mObject(std::move(object)) {}

sp<LocalService::ICameraDesktop> LocalService::object() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mObject;
}

bool LocalService::linkToDeath(const sp<IBase>& proxy, const sp<Recipient>& recipient, uint64_t cookie) {
    std::lock_guard<std::mutex> lock(mLock);
    if (mToldProxies.count(proxy.get()) != 0) return false;
    mRegistrations.push_back({proxy.get(), proxy, recipient, cookie});
    return true;
}

bool LocalService::unlinkToDeath(const IBase* proxy, const sp<Recipient>& recipient) {
    std::lock_guard<std::mutex> lock(mLock);
    // The promotion tells a dead recipient from a new one at the same address; it can only yield the caller's
    // object.
    const auto newest =
        std::find_if(mRegistrations.rbegin(), mRegistrations.rend(), [&](const DeathNotice& entry) {
            return entry.proxy == proxy && entry.recipient.unsafe_get() == recipient.get() &&
                   entry.recipient.promote() != nullptr;
        });
    if (newest == mRegistrations.rend()) return false;
    mRegistrations.erase(std::next(newest).base());
    return true;
}

void LocalService::forgetProxy(const IBase* proxy) {
    std::lock_guard<std::mutex> lock(mLock);
    mRegistrations.erase(std::remove_if(mRegistrations.begin(), mRegistrations.end(),
                                        [&](const DeathNotice& entry) { return entry.proxy == proxy; }),
                         mRegistrations.end());
    mToldProxies.erase(proxy);
}

void LocalService::kill() {
    // Goes after the lock: the object's destructor is not ours.
    sp<ICameraDesktop> released;
    std::lock_guard<std::mutex> lock(mLock);
    released = std::exchange(mObject, nullptr);
}

std::vector<LocalService::DeathNotice> LocalService::takeDeathNotices() {
    std::lock_guard<std::mutex> lock(mLock);
    for (const DeathNotice& notice : mRegistrations)
        mToldProxies.insert(notice.proxy);
    return std::exchange(mRegistrations, {});
}

}  // namespace vel::host
