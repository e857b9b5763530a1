#pragma once

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

/** Runs each of its actions over and over, on a thread of its own, until the end. */
class RepeatedActions {
  public:
    ~RepeatedActions() { stop(); }

    void add(const std::function<void()>& action) {
        mThreads.emplace_back([this, action] {
            while (!mStop)
                action();
        });
    }
    void stop() {
        mStop = true;
        for (std::thread& thread : mThreads)
            thread.join();
        mThreads.clear();
    }

  private:
    std::atomic<bool> mStop{false};
    std::vector<std::thread> mThreads;
};
