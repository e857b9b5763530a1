#pragma once

#include <utils/Errors.h>

#include <condition_variable>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "LocalService.h"

namespace vel::host {

/**
 * Names the services of this process and keeps the switches of LocalServices.h. Thread-safe; lives until the
 * process ends.
 */
class LocalServiceRegistry {
  public:
    static LocalServiceRegistry& instance();

    android::status_t add(const std::string& name, const android::sp<LocalService::ICameraDesktop>& object);
    /** A new proxy, or null. Counts the look-up. */
    android::sp<LocalService::ICameraDesktop> find(const std::string& name);
    /** The status with which a call on `name` must fail now, if it must. */
    std::optional<android::hardware::Status> takeFault(const std::string& name);

    bool kill(const std::string& name);
    /** Tells the recipients of a dead service on a thread of its own. Does not block. */
    void tellDeath(std::shared_ptr<LocalService> service);
    void awaitDeathNotices();
    void clear();
    size_t lookUpCount(const std::string& name);
    void failNextCalls(const std::string& name, size_t count, const android::hardware::Status& status);

  private:
    struct Entry {
        std::shared_ptr<LocalService> service;
        size_t lookUps = 0;
        size_t faults = 0;
        android::hardware::Status fault;
    };

    void deliver(LocalService& service);

    std::mutex mLock;
    std::map<std::string, Entry> mEntries;  // guarded by mLock
    size_t mDeliveries = 0;                 // threads that still tell recipients; guarded by mLock
    std::condition_variable mDelivered;
};

}  // namespace vel::host
