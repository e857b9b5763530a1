#include "WorkerPool.h"

#include <android/log.h>

#include <chrono>
#include <exception>
#include <thread>

#include "DesktopBusNames.h"

namespace vel::dbus_transport {

namespace bus = vel::desktop_bus;

namespace {

constexpr auto kIdleLimit = std::chrono::seconds(10);

}  // namespace

void WorkerPool::post(Work work) {
    bool idleWorkerLeft;
    {
        std::lock_guard<std::mutex> lock(mLock);
        mQueue.push_back(std::move(work));
        idleWorkerLeft = mQueue.size() <= mIdleWorkers;
    }
    if (idleWorkerLeft) {
        mWorkAdded.notify_one();
        return;
    }
    try {
        std::thread([this] { runWorker(); }).detach();
    } catch (const std::system_error& error) {
        // The work stays queued for the next worker that has time.
        __android_log_print(ANDROID_LOG_ERROR, bus::kLogTag, "No thread for incoming work: %s", error.what());
    }
}

void WorkerPool::runWorker() {
    Work work;
    while (takeWork(work)) {
        try {
            work();
        } catch (const std::exception& exception) {
            __android_log_print(ANDROID_LOG_ERROR, bus::kLogTag, "Incoming work failed: %s",
                                exception.what());
        }
        work = nullptr;
    }
}

bool WorkerPool::takeWork(Work& work) {
    std::unique_lock<std::mutex> lock(mLock);
    ++mIdleWorkers;
    const bool found = mWorkAdded.wait_for(lock, kIdleLimit, [this] { return !mQueue.empty(); });
    --mIdleWorkers;
    if (!found) return false;
    work = std::move(mQueue.front());
    mQueue.pop_front();
    return true;
}

}  // namespace vel::dbus_transport
