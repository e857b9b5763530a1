#pragma once

#include <android/hidl/base/1.0/IBase.h>
#include <hidl/HidlSupport.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "BusSession.h"

namespace vel::dbus_transport {

/**
 * The death registrations of one proxy, which owns them: they end with it. Any thread; no call out is made
 * under the lock.
 */
class DeathLinks {
  public:
    using IBase = android::hidl::base::V1_0::IBase;
    using Recipient = android::hardware::hidl_death_recipient;

    /**
     * Adds a registration; a recipient may have several. False once the death has been told. The recipient is
     * held weakly.
     */
    bool add(const android::sp<Recipient>& recipient, uint64_t cookie);
    /** Takes the recipient's newest registration back. False when there is none, or it has been told. */
    bool remove(const android::sp<Recipient>& recipient);
    /** Tells every registered recipient that is still there, on the calling thread; at most once. */
    void notify(const android::sp<IBase>& proxy);

  private:
    struct Link {
        android::wp<Recipient> recipient;
        Recipient* identity;  // compared, never followed
        uint64_t cookie;
    };

    std::mutex mLock;  // guards both
    bool mTold = false;
    std::vector<Link> mLinks;
};

/** Which proxies want to hear of which peer's death. Any thread. */
class DeathWatch {
  public:
    struct Watcher {
        android::wp<DeathLinks::IBase> proxy;
        std::weak_ptr<DeathLinks> links;
    };

    void add(SessionId session, const std::string& busName, Watcher watcher);
    /** The watchers of a peer, or of every peer of a session, which are watched no longer. */
    std::vector<Watcher> take(SessionId session, const std::string& busName);
    std::vector<Watcher> takeAll(SessionId session);

  private:
    using Peer = std::pair<SessionId, std::string>;

    std::mutex mLock;
    std::multimap<Peer, Watcher> mWatchers;
};

}  // namespace vel::dbus_transport
