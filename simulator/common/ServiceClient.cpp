#include "ServiceClient.h"

#include <sdbus-c++/sdbus-c++.h>

#include <cstdlib>
#include <utility>

#include "DesktopBusNames.h"
#include "EventWriter.h"
#include "Timeline.h"

using android::sp;
using android::wp;
using android::hardware::hidl_death_recipient;
using android::hardware::hidl_string;
using android::hardware::Return;
using android::hardware::Void;
using android::hidl::base::V1_0::IBase;

namespace vel::sim {

namespace {
constexpr std::chrono::milliseconds kLookUpPause{50};
constexpr std::chrono::seconds kOriginLimit{1};

// Where the service's printed times begin; empty when it does not tell.
std::optional<int64_t> serviceTimeOrigin() try {
    const char* const address = std::getenv(desktop_bus::kAddressVariable);
    if (address == nullptr) return std::nullopt;
    const auto connection = sdbus::createSessionBusConnectionWithAddress(address);
    connection->setMethodCallTimeout(kOriginLimit);
    const auto service =
        sdbus::createProxy(*connection, desktop_bus::kServiceName, desktop_bus::kServicePath);
    return service->getProperty(kOriginProperty).onInterface(kTimelineInterface).get<int64_t>();
} catch (const sdbus::Error&) {
    return std::nullopt;
}

}  // namespace

class ServiceClient::Callback : public korvanta::hardware::camera::desktop::V1_0::ICameraDesktopCallback,
                                public hidl_death_recipient {
  public:
    Callback(ServiceClient* client, Handler handler) : mClient(client), mHandler(std::move(handler)) {}

    // The client is going away: its callback may live on at the service.
    void detach() {
        std::lock_guard<std::mutex> lock(mLock);
        mClient = nullptr;
    }

    Return<void> onCommand(const hidl_string& command, onCommand_cb reply) override {
        reply(hidl_string(mHandler(std::string(command.c_str(), command.size()))));
        return Void();
    }

    void serviceDied(uint64_t, const wp<IBase>&) override {
        std::lock_guard<std::mutex> lock(mLock);
        if (mClient != nullptr) mClient->onServiceDied();
    }

  private:
    std::mutex mLock;
    ServiceClient* mClient;  // guarded by mLock
    const Handler mHandler;
};

ServiceClient::ServiceClient(ClientType self, Handler handler, StateListener listener)
    : mSelf(self),
      mListener(std::move(listener)),
      mCallback(new Callback(this, std::move(handler))),
      mKeeper([this] { keepConnected(); }) {}

ServiceClient::~ServiceClient() {
    mCallback->detach();
    {
        std::lock_guard<std::mutex> lock(mLock);
        mStopping = true;
    }
    mChanged.notify_all();
    mKeeper.join();
}

void ServiceClient::keepConnected() {
    std::unique_lock<std::mutex> lock(mLock);
    while (!mStopping) {
        if (mService != nullptr) {
            mChanged.wait(lock);
            continue;
        }
        lock.unlock();
        const bool connected = tryConnect();
        if (connected && mListener) mListener(true);
        lock.lock();
        if (!connected && !mStopping) mChanged.wait_for(lock, kLookUpPause);
    }
}

bool ServiceClient::tryConnect() {
    const sp<ICameraDesktop> service = ICameraDesktop::tryGetService("default", false);
    if (service == nullptr) return false;
    {
        std::lock_guard<std::mutex> lock(mLock);
        mDied = false;
    }
    // The death watch first: a service that dies under the registration is then looked for again.
    if (!service->linkToDeath(sp<hidl_death_recipient>(mCallback), 0).withDefault(false)) return false;
    if (!service->registerCallback(mSelf, mCallback).isOk()) return false;
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (mDied) return false;
        mService = service;
    }
    mChanged.notify_all();
    return true;
}

void ServiceClient::onServiceDied() {
    {
        std::lock_guard<std::mutex> lock(mLock);
        mDied = true;
        if (mService == nullptr) return;
        mService = nullptr;
    }
    mChanged.notify_all();
    if (mListener) mListener(false);
}

bool ServiceClient::waitUntilConnected(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(mLock);
    return mChanged.wait_for(lock, limit, [this] { return mService != nullptr; });
}

sp<ServiceClient::ICameraDesktop> ServiceClient::service() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mService;
}

ServiceClient::Reply ServiceClient::send(ClientType to, const std::string& command) {
    const sp<ICameraDesktop> target = service();
    if (target == nullptr) return {false, "the desktop service is not there"};
    Reply reply;
    const Return<void> result = target->sendCommand(to, hidl_string(command), [&](const hidl_string& text) {
        reply.text.assign(text.c_str(), text.size());
    });
    reply.ok = result.isOk();
    if (!reply.ok) reply.text = result.description();
    return reply;
}

ServiceClient::StateListener printLinkOf(const CommonOptions& options) {
    return [follows = !options.timeOriginNs.has_value()](bool connected) {
        const auto originNs = connected && follows ? serviceTimeOrigin() : std::nullopt;
        if (originNs) setTimeOrigin(*originNs);
        printLine(connected ? "registered" : "service lost");
        events::instant(Track::LINK, "link", connected ? "link up" : "link down", {});
    };
}

}  // namespace vel::sim
