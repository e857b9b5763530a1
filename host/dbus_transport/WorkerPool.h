#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace vel::dbus_transport {

/**
 * Threads for work that may block: incoming calls and death notices. Each piece of work has a thread of its
 * own, since it may wait for another; threads without work end after a while, those that were idle longest
 * first. The threads are detached and the pool is never destroyed, so that leaving the process waits for
 * nothing.
 */
class WorkerPool {
  public:
    using Work = std::function<void()>;

    /** How much of one peer's work is under way at most. */
    static constexpr size_t kMaxForPeer = 64;

    /** idleLimit: how long a thread stays without work. */
    explicit WorkerPool(std::chrono::milliseconds idleLimit = std::chrono::seconds(10))
        : mIdleLimit(idleLimit) {}
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    /**
     * Makes sure of the thread that post() falls back on; false, logged, when it cannot be had. Nothing may
     * be posted before it has succeeded.
     */
    bool start();

    /**
     * Runs this process's own work soon: on a thread of the pool, or without one behind other such work on a
     * thread that is there for this. From any thread; does not block.
     */
    void post(Work work);
    /**
     * Runs a peer's work soon, on a thread of the pool; false, logged, when there is none, or kMaxForPeer of
     * the peer are under way. From any thread; does not block.
     */
    bool postFor(const std::string& peer, Work work);

  private:
    ~WorkerPool() = default;  // never run

    // A thread and the work that it is given.
    struct Idle {
        std::condition_variable wake;
        Work work;  // empty while it waits
    };

    bool giveToThread(Work& work);
    bool startWorker(Work& work);
    void runWorker(const std::shared_ptr<Idle>& self);
    void runReserve();
    bool takeWork(const std::shared_ptr<Idle>& self);

    const std::chrono::milliseconds mIdleLimit;
    std::mutex mLock;                          // guards the fields below
    std::vector<std::shared_ptr<Idle>> mIdle;  // the one that has slept least is last
    std::map<std::string, size_t> mUnderWay;   // by peer; no zeroes
    bool mHasReserve = false;
    std::deque<Work> mStranded;  // for the reserve
    std::condition_variable mReserveWake;
};

}  // namespace vel::dbus_transport
