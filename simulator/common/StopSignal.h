#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace vel::sim {

/** Tells threads to end. Any thread may call. */
class StopSignal {
  public:
    using Clock = std::chrono::steady_clock;

    void set() {
        {
            std::lock_guard<std::mutex> lock(mLock);
            mSet = true;
        }
        mChanged.notify_all();
    }

    bool isSet() const {
        std::lock_guard<std::mutex> lock(mLock);
        return mSet;
    }

    /** Waits until the time; false when the signal is or gets set. */
    bool waitUntil(Clock::time_point time) const {
        std::unique_lock<std::mutex> lock(mLock);
        return !mChanged.wait_until(lock, time, [this] { return mSet; });
    }
    bool waitFor(Clock::duration duration) const { return waitUntil(Clock::now() + duration); }

  private:
    mutable std::mutex mLock;
    mutable std::condition_variable mChanged;
    bool mSet = false;  // guarded by mLock
};

}  // namespace vel::sim
