#include "LocalServiceRegistry.h"

#include <hidl_host/LocalServices.h>

#include <thread>
#include <utility>

#include "Fatal.h"

namespace vel::host {

using android::sp;
using android::hardware::Status;

namespace {

void tell(const LocalService::DeathNotice& notice) {
    // Without its proxy a registration has ended.
    if (notice.who.promote() == nullptr) return;
    const sp<LocalService::Recipient> recipient = notice.recipient.promote();
    if (recipient != nullptr) recipient->serviceDied(notice.cookie, notice.who);
}

}  // namespace

LocalServiceRegistry& LocalServiceRegistry::instance() {
    static LocalServiceRegistry* const registry = new LocalServiceRegistry;
    return *registry;
}

android::status_t LocalServiceRegistry::add(const std::string& name,
                                            const sp<LocalService::ICameraDesktop>& object) {
    auto service = std::make_shared<LocalService>(name, object);
    std::lock_guard<std::mutex> lock(mLock);
    Entry& entry = mEntries[name];
    entry.service.swap(service);  // the replaced one goes after the lock
    return android::OK;
}

sp<LocalService::ICameraDesktop> LocalServiceRegistry::find(const std::string& name) {
    std::shared_ptr<LocalService> service;
    {
        std::lock_guard<std::mutex> lock(mLock);
        Entry& entry = mEntries[name];
        ++entry.lookUps;
        service = entry.service;
    }
    return service ? makeLocalProxy(service) : nullptr;
}

std::optional<Status> LocalServiceRegistry::takeFault(const std::string& name) {
    std::lock_guard<std::mutex> lock(mLock);
    Entry& entry = mEntries[name];
    if (entry.faults == 0) return std::nullopt;
    --entry.faults;
    return entry.fault;
}

bool LocalServiceRegistry::kill(const std::string& name) {
    std::shared_ptr<LocalService> service;
    {
        std::lock_guard<std::mutex> lock(mLock);
        service = std::exchange(mEntries[name].service, nullptr);
    }
    if (!service) return false;
    service->kill();
    tellDeath(std::move(service));
    return true;
}

void LocalServiceRegistry::tellDeath(std::shared_ptr<LocalService> service) {
    {
        std::lock_guard<std::mutex> lock(mLock);
        ++mDeliveries;
    }
    std::thread([this, service = std::move(service)] { deliver(*service); }).detach();
}

void LocalServiceRegistry::deliver(LocalService& service) {
    for (const LocalService::DeathNotice& notice : service.takeDeathNotices())
        tell(notice);
    std::lock_guard<std::mutex> lock(mLock);
    --mDeliveries;
    mDelivered.notify_all();
}

void LocalServiceRegistry::awaitDeathNotices() {
    std::unique_lock<std::mutex> lock(mLock);
    mDelivered.wait(lock, [this] { return mDeliveries == 0; });
}

void LocalServiceRegistry::clear() {
    std::map<std::string, Entry> released;
    std::lock_guard<std::mutex> lock(mLock);
    released.swap(mEntries);
}

size_t LocalServiceRegistry::lookUpCount(const std::string& name) {
    std::lock_guard<std::mutex> lock(mLock);
    return mEntries[name].lookUps;
}

void LocalServiceRegistry::failNextCalls(const std::string& name, size_t count, const Status& status) {
    if (status.isOk()) fatal("failNextLocalCalls() needs a failed status");
    std::lock_guard<std::mutex> lock(mLock);
    mEntries[name].faults = count;
    mEntries[name].fault = status;
}

bool killLocalService(const std::string& name) {
    return LocalServiceRegistry::instance().kill(name);
}

void awaitDeathNotices() {
    LocalServiceRegistry::instance().awaitDeathNotices();
}

void clearLocalServices() {
    LocalServiceRegistry::instance().clear();
}

size_t localLookUpCount(const std::string& name) {
    return LocalServiceRegistry::instance().lookUpCount(name);
}

void failNextLocalCalls(const std::string& name, size_t count, const Status& status) {
    LocalServiceRegistry::instance().failNextCalls(name, count, status);
}

}  // namespace vel::host
