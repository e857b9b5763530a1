#include "DeathLinks.h"

#include <algorithm>

namespace vel::dbus_transport {

using android::sp;

bool DeathLinks::add(const sp<Recipient>& recipient, uint64_t cookie) {
    std::lock_guard<std::mutex> lock(mLock);
    if (mTold) return false;
    mLinks.push_back({recipient, recipient.get(), cookie});
    return true;
}

bool DeathLinks::remove(const sp<Recipient>& recipient) {
    std::lock_guard<std::mutex> lock(mLock);
    const auto newest = std::find_if(mLinks.rbegin(), mLinks.rend(),
                                     [&](const Link& link) { return link.identity == recipient.get(); });
    if (newest == mLinks.rend()) return false;
    mLinks.erase(std::next(newest).base());
    return true;
}

void DeathLinks::notify(const sp<IBase>& proxy) {
    std::vector<Link> links;
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (mLinks.empty()) return;
        mTold = true;
        links.swap(mLinks);
    }
    for (const Link& link : links) {
        if (const sp<Recipient> recipient = link.recipient.promote())
            recipient->serviceDied(link.cookie, proxy);
    }
}

void DeathWatch::add(SessionId session, const std::string& busName, Watcher watcher) {
    std::lock_guard<std::mutex> lock(mLock);
    // Proxies come and go with each look-up, peers seldom die.
    for (auto entry = mWatchers.begin(); entry != mWatchers.end();) {
        entry = entry->second.links.expired() ? mWatchers.erase(entry) : std::next(entry);
    }
    mWatchers.emplace(Peer(session, busName), std::move(watcher));
}

std::vector<DeathWatch::Watcher> DeathWatch::take(SessionId session, const std::string& busName) {
    std::vector<Watcher> taken;
    std::lock_guard<std::mutex> lock(mLock);
    const auto [begin, end] = mWatchers.equal_range(Peer(session, busName));
    for (auto entry = begin; entry != end; ++entry)
        taken.push_back(std::move(entry->second));
    mWatchers.erase(begin, end);
    return taken;
}

std::vector<DeathWatch::Watcher> DeathWatch::takeAll(SessionId session) {
    std::vector<Watcher> taken;
    std::lock_guard<std::mutex> lock(mLock);
    for (auto entry = mWatchers.begin(); entry != mWatchers.end();) {
        if (entry->first.first != session) {
            ++entry;
            continue;
        }
        taken.push_back(std::move(entry->second));
        entry = mWatchers.erase(entry);
    }
    return taken;
}

}  // namespace vel::dbus_transport
