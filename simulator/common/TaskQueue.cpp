#include "TaskQueue.h"

#include <utility>

#include "StartThread.h"

namespace vel::sim {

void TaskQueue::post(std::function<void()> task) {
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (mFinished) return;
        mTasks.push_back(std::move(task));
    }
    mChanged.notify_one();
}

void TaskQueue::finish() {
    {
        std::lock_guard<std::mutex> lock(mLock);
        mFinished = true;
    }
    mChanged.notify_all();
}

void TaskQueue::cancel() {
    {
        std::lock_guard<std::mutex> lock(mLock);
        mTasks.clear();
    }
    finish();
}

void TaskQueue::run() {
    std::unique_lock<std::mutex> lock(mLock);
    for (;;) {
        mChanged.wait(lock, [this] { return mFinished || !mTasks.empty(); });
        if (mTasks.empty()) return;
        const std::function<void()> task = std::move(mTasks.front());
        mTasks.pop_front();
        lock.unlock();
        task();
        lock.lock();
    }
}

TaskThread::TaskThread(const char* purpose)
    : mThread(startThread(purpose, [this] {
          mTasks.run();
          mIsOver = true;
      })) {}

void TaskThread::finish() {
    mTasks.finish();
    if (mThread.joinable()) mThread.join();
}

}  // namespace vel::sim
