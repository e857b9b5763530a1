#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

namespace vel::dbus_transport {

/**
 * Threads for work that may block: incoming calls and death notices. There is always a thread for a new piece
 * of work, since each one may wait for another; threads without work end after a while. The threads are
 * detached and the pool is never destroyed, so that leaving the process waits for nothing.
 */
class WorkerPool {
  public:
    using Work = std::function<void()>;

    WorkerPool() = default;
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    /** Runs the work soon, on a thread of the pool. From any thread; does not block. */
    void post(Work work);

  private:
    ~WorkerPool() = default;  // never run

    void runWorker();
    bool takeWork(Work& work);

    std::mutex mLock;  // guards all fields
    std::condition_variable mWorkAdded;
    std::deque<Work> mQueue;
    size_t mIdleWorkers = 0;
};

}  // namespace vel::dbus_transport
