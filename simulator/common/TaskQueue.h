#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

namespace vel::sim {

/** Work for one thread, posted by any. */
class TaskQueue {
  public:
    /** Adds a task; dropped after finish(). */
    void post(std::function<void()> task);
    /** Lets run() return once the tasks posted so far are done. */
    void finish();
    /** The same, and drops the tasks that have not begun. */
    void cancel();
    /** Runs the tasks on the calling thread, in order, until finish(). */
    void run();

  private:
    std::mutex mLock;
    std::condition_variable mChanged;
    std::deque<std::function<void()>> mTasks;  // guarded by mLock
    bool mFinished = false;                    // guarded by mLock
};

}  // namespace vel::sim
