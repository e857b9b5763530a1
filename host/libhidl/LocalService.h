#pragma once

#include <hidl/Status.h>
#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace vel::host {

/**
 * A service object registered in this process, and the death registrations of its proxies. Thread-safe;
 * nothing is called out of it while its lock is held.
 */
class LocalService {
  public:
    using ICameraDesktop = korvanta::hardware::camera::desktop::V2_0::ICameraDesktop;
    using IBase = android::hidl::base::V1_0::IBase;
    using Recipient = android::hardware::hidl_death_recipient;

    struct DeathNotice {
        const IBase* proxy;
        android::wp<IBase> who;
        android::wp<Recipient> recipient;
        uint64_t cookie;
    };

    LocalService(std::string name, android::sp<ICameraDesktop> object);

    const std::string& name() const { return mName; }
    /** Null once killed. */
    android::sp<ICameraDesktop> object() const;

    /**
     * False when `proxy` has had its notice of death. On a service that is dead otherwise the notice is due
     * at once: see takeDeathNotices().
     */
    bool linkToDeath(const android::sp<IBase>& proxy, const android::sp<Recipient>& recipient,
                     uint64_t cookie);
    /** Removes the newest registration of `recipient` on `proxy`; false when there is none. */
    bool unlinkToDeath(const IBase* proxy, const android::sp<Recipient>& recipient);
    /** Removes all registrations of a proxy that is being destroyed. */
    void forgetProxy(const IBase* proxy);

    /** Lets the object go. */
    void kill();
    /**
     * What the recipients of the dead service must be told now, in the order of registration; their proxies
     * take no registration any more.
     */
    std::vector<DeathNotice> takeDeathNotices();

  private:
    const std::string mName;
    mutable std::mutex mLock;
    android::sp<ICameraDesktop> mObject;      // guarded by mLock
    std::vector<DeathNotice> mRegistrations;  // guarded by mLock
    std::set<const IBase*> mToldProxies;      // of the death; guarded by mLock
};

/** A new proxy of `service`. */
android::sp<LocalService::ICameraDesktop> makeLocalProxy(const std::shared_ptr<LocalService>& service);

}  // namespace vel::host
