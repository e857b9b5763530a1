#include "ProducerChannels.h"

#include <algorithm>
#include <iterator>

namespace vel::dbus_transport {

using android::sp;
using queue_channel::Client;

namespace {

// Of a process to a producer: each has threads and descriptors.
constexpr long kMaxChannels = 64;

}  // namespace

android::base::unique_fd ProducerChannels::open(SessionId session, const std::string& busName,
                                                const sp<IGraphicBufferProducer>& producer) {
    forgetDestroyed();
    const std::shared_ptr<Client> client = clientOf(session, busName, producer);
    constexpr long kOtherHolders = 2;  // this and the list
    if (client.use_count() >= kOtherHolders + kMaxChannels) return {};
    return queue_channel::ProducerServer::open(producer, client);
}

std::shared_ptr<Client> ProducerChannels::clientOf(SessionId session, const std::string& busName,
                                                   const android::wp<IGraphicBufferProducer>& producer) {
    std::lock_guard<std::mutex> lock(mLock);
    const auto known = std::find_if(mUses.begin(), mUses.end(), [&](const Use& use) {
        return use.session == session && use.busName == busName && use.producer == producer;
    });
    if (known != mUses.end()) return known->client;
    auto client = std::make_shared<Client>();
    client->name = std::to_string(session) + " " + busName;
    mUses.push_back({session, busName, producer, client});
    return client;
}

void ProducerChannels::forgetDestroyed() {
    std::vector<sp<IGraphicBufferProducer>> held;
    std::lock_guard<std::mutex> lock(mLock);
    const auto isDestroyed = [&](const Use& use) {
        held.push_back(use.producer.promote());
        return held.back() == nullptr;
    };
    mUses.erase(std::remove_if(mUses.begin(), mUses.end(), isDestroyed), mUses.end());
    mWorkers.post(
        [held = std::move(held)] {});  // it may destroy a producer, whose destructor may do anything
}

void ProducerChannels::onPeerDied(SessionId session, const std::string& busName) {
    endIf([&](const Use& use) { return use.session == session && use.busName == busName; });
}

void ProducerChannels::onSessionEnded(SessionId session) {
    endIf([&](const Use& use) { return use.session == session; });
}

// On workers: the consumer's listener is told, and may do anything.
void ProducerChannels::endIf(const std::function<bool(const Use&)>& isDead) {
    std::lock_guard<std::mutex> lock(mLock);
    const auto dead = std::stable_partition(mUses.begin(), mUses.end(), std::not_fn(isDead));
    for (auto use = dead; use != mUses.end(); ++use) {
        use->client->isAlive = false;
        mWorkers.post([client = use->client, producer = use->producer] {
            const sp<IGraphicBufferProducer> living = producer.promote();
            if (living != nullptr && client->hasConnected) client->disconnectFrom(*living);
        });
    }
    mUses.erase(dead, mUses.end());
}

}  // namespace vel::dbus_transport
