#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

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

/** A queue of work with a thread that does it. */
class TaskThread {
  public:
    /** Throws std::system_error, which names the purpose, without a thread. */
    explicit TaskThread(const char* purpose);
    ~TaskThread() { finish(); }
    TaskThread(const TaskThread&) = delete;
    TaskThread& operator=(const TaskThread&) = delete;

    TaskQueue& tasks() { return mTasks; }
    /** Waits until the tasks posted so far are done, or those under way once they are cancelled. */
    void finish();
    /** Whether all is done after tasks().cancel(): finish() does not wait. */
    bool isOver() const { return mIsOver; }

  private:
    TaskQueue mTasks;
    std::atomic<bool> mIsOver{false};
    std::thread mThread;  // last: it uses the members above
};

}  // namespace vel::sim
