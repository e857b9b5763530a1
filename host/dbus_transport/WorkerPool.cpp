#include "WorkerPool.h"

#include <android/log.h>

#include <algorithm>
#include <exception>
#include <system_error>
#include <thread>
#include <utility>

#include "DesktopBusNames.h"

namespace vel::dbus_transport {

namespace bus = vel::desktop_bus;

namespace {

void runLogged(const WorkerPool::Work& work) {
    try {
        work();
    } catch (const std::exception& exception) {
        __android_log_print(ANDROID_LOG_ERROR, bus::kLogTag, "Incoming work failed: %s", exception.what());
    }
}

bool startThread(const WorkerPool::Work& body) try {
    std::thread(body).detach();
    return true;
} catch (const std::system_error& error) {
    __android_log_print(ANDROID_LOG_ERROR, bus::kLogTag, "No thread for incoming work: %s", error.what());
    return false;
}

}  // namespace

bool WorkerPool::start() {
    std::lock_guard<std::mutex> lock(mLock);
    if (!mHasReserve) mHasReserve = startThread([this] { runReserve(); });
    return mHasReserve;
}

void WorkerPool::post(Work work) {
    if (giveToThread(work)) return;
    {
        std::lock_guard<std::mutex> lock(mLock);
        mStranded.push_back(std::move(work));
    }
    mReserveWake.notify_one();
}

bool WorkerPool::postFor(const std::string& peer, Work work) {
    {
        std::lock_guard<std::mutex> lock(mLock);
        size_t& count = mUnderWay[peer];
        if (count == kMaxForPeer) {
            __android_log_print(ANDROID_LOG_WARN, bus::kLogTag, "%zu calls of %s wait already", count,
                                peer.c_str());
            return false;
        }
        ++count;
    }
    const auto end = [this, peer] {
        std::lock_guard<std::mutex> lock(mLock);
        const auto count = mUnderWay.find(peer);
        if (--count->second == 0) mUnderWay.erase(count);
    };
    Work counted = [work = std::move(work), end] {
        runLogged(work);
        end();
    };
    if (giveToThread(counted)) return true;
    end();
    return false;
}

// False, and the work stays the caller's, when no thread can be had.
bool WorkerPool::giveToThread(Work& work) {
    std::shared_ptr<Idle> idle;
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (!mIdle.empty()) {
            idle = std::move(mIdle.back());
            mIdle.pop_back();
            idle->work = std::move(work);
        }
    }
    if (idle == nullptr) return startWorker(work);
    idle->wake.notify_one();  // without the lock, for which the woken thread would wait once more
    return true;
}

bool WorkerPool::startWorker(Work& work) {
    const auto self = std::make_shared<Idle>();
    self->work.swap(work);
    const bool isStarted = startThread([this, self] { runWorker(self); });
    if (!isStarted) self->work.swap(work);
    return isStarted;
}

void WorkerPool::runWorker(const std::shared_ptr<Idle>& self) {
    do {
        runLogged(self->work);
        self->work = nullptr;
    } while (takeWork(self));
}

bool WorkerPool::takeWork(const std::shared_ptr<Idle>& self) {
    std::unique_lock<std::mutex> lock(mLock);
    mIdle.push_back(self);
    if (self->wake.wait_for(lock, mIdleLimit, [&] { return self->work != nullptr; })) return true;
    mIdle.erase(std::find(mIdle.begin(), mIdle.end(), self));
    return false;
}

void WorkerPool::runReserve() {
    std::unique_lock<std::mutex> lock(mLock);
    for (;;) {
        mReserveWake.wait(lock, [this] { return !mStranded.empty(); });
        Work work = std::move(mStranded.front());
        mStranded.pop_front();
        lock.unlock();
        runLogged(work);
        work = nullptr;  // what it holds may call out when it goes
        lock.lock();
    }
}

}  // namespace vel::dbus_transport
